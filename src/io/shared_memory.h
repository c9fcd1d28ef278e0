// io::SharedMemory: the pool that all siblings map, and how a child finds it. What lies in it is
// told in pool_layout.h.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/shared_memory.h"

namespace io {

/// What a process needs to join the family.
struct PoolAccess {
    int map_fd = -1;          ///< descriptor of the pool
    std::string fifo_prefix;  ///< path of a sibling's FIFO is this, a point, and its id
    uint64_t map_size = 0;    ///< bytes

    /// Reads the environment variables `name`::mapfile, ::fifoprefix and ::mapsize. A missing one
    /// is error::EFatal with "No ... passed in environment", one that is no number error::EFatal
    /// with its name and value.
    static PoolAccess fromEnvironment(const std::string& name);
    /// The variables that fromEnvironment() reads, for the environment of a child that inherits
    /// map_fd.
    [[nodiscard]] std::vector<std::pair<std::string, std::string>> toEnvironment(
        const std::string& name) const;
};

class SharedMemory {
  public:
    /// Makes a pool with its magic. error::ESystemError "Cannot map view for sibling messenger".
    static SharedMemory create(uint64_t size_bytes);
    /// Maps an existing pool; another magic is a fatal assertion.
    static SharedMemory attach(const PoolAccess& access);

    [[nodiscard]] uint8_t* data() const noexcept { return mapping_.data(); }
    [[nodiscard]] uint64_t size() const noexcept { return mapping_.size(); }
    /// The pool's descriptor, for a pool made here.
    [[nodiscard]] int fd() const noexcept { return mapping_.fd(); }

  private:
    explicit SharedMemory(platform::SharedMapping mapping) : mapping_(std::move(mapping)) {}

    platform::SharedMapping mapping_;
};

}  // namespace io
