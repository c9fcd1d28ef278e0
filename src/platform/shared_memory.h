// A region of memory shared between processes: a memfd that never changes its size, mapped for
// reading and writing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/fifo.h"

namespace platform {

class SharedMapping {
  public:
    /// Makes a new region of `size_bytes` zero bytes, accessible to the owning user alone and
    /// sealed against resizing. error::ESystemError with `failure_text`.
    static SharedMapping create(size_t size_bytes, const std::string& failure_text);
    /// Maps `size_bytes` of the region behind `fd`, which stays with the caller.
    /// error::ESystemError with `failure_text`.
    static SharedMapping attach(int fd, size_t size_bytes, const std::string& failure_text);

    SharedMapping(SharedMapping&& other) noexcept;
    SharedMapping& operator=(SharedMapping&&) = delete;
    ~SharedMapping();

    [[nodiscard]] uint8_t* data() const noexcept { return data_; }
    [[nodiscard]] size_t size() const noexcept { return size_bytes_; }
    /// The descriptor of a region made here, close-on-exec; -1 for an attached one.
    [[nodiscard]] int fd() const noexcept { return fd_.get(); }

  private:
    SharedMapping(Fd fd, uint8_t* data, size_t size_bytes);

    Fd fd_;
    uint8_t* data_;
    size_t size_bytes_;
};

}  // namespace platform
