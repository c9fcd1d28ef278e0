// protocol::ioprim: primitives in and out of a pair of byte streams, straight from and into the
// streams' own memory.
//
// Numbers travel in host order, since all processes run on one machine. It knows nothing of events:
// where one begins and ends is told by whoever calls commit().
//
//   written: a number of 4 or 8 bytes never straddles two areas; the bytes of a string may
//   read:    anything may straddle two areas at any byte
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "protocol/byte_writer.h"

namespace io {
class IStream;
class OStream;
}  // namespace io

namespace protocol {

/// Every operation may wait until its stream is ready; what lies below the stream is served
/// meanwhile. A stream that ends raises io::EEndOfStream, and what was written and not yet
/// published of the present area is dropped.
class ioprim final : public ByteWriter {
  public:
    /// The streams must outlive this object.
    ioprim(io::IStream& in, io::OStream& out) : in_(in), out_(out) {}

    /// Writes `size` bytes that lie in one piece and hold whole numbers: all in one area. False,
    /// with nothing written, where they are more than a new area takes.
    [[nodiscard]] bool put_together(const void* bytes, std::size_t size);

    /// Publishes what was written since the last commit, then waits until the stream is ready
    /// again. After it the reader can see everything, and the next thing written stands in a block
    /// of its own.
    void commit();

    [[nodiscard]] std::uint32_t get32() { return get_number<std::uint32_t>(); }
    [[nodiscard]] std::uint64_t get64() { return get_number<std::uint64_t>(); }
    void get_bytes(void* bytes, std::size_t size);

    /// Hands the next `size` bytes to `take(const std::uint8_t*, std::size_t)` where they lie, area
    /// by area.
    template <class Take>
    void get_runs(std::uint64_t size, Take&& take) {
        while (size > 0) {
            const std::size_t available = get_available();
            const std::size_t run = size < available ? static_cast<std::size_t>(size) : available;
            take(read_area_ + read_pos_, run);
            read_pos_ += run;
            size -= run;
            if (read_pos_ == read_size_) finish_read_area();
        }
    }

    /// How many bytes can be read without waiting and without a step to another area: at least one,
    /// after waiting for it if need be.
    [[nodiscard]] std::size_t get_available();

    /// Bytes read from the stream so far.
    [[nodiscard]] std::uint64_t bytes_read() const { return read_before_area_ + read_pos_; }

  private:
    template <class Number>
    Number get_number() {
        Number value;
        if (read_size_ - read_pos_ > sizeof value) [[likely]] {
            std::memcpy(&value, read_area_ + read_pos_, sizeof value);
            read_pos_ += sizeof value;
        } else {
            get_bytes(&value, sizeof value);
        }
        return value;
    }

    void next_area(std::size_t needed) override;
    void publish();
    void next_read_area();
    void finish_read_area();

    io::IStream& in_;
    io::OStream& out_;

    const std::uint8_t* read_area_ = nullptr;
    std::size_t read_size_ = 0;
    std::size_t read_pos_ = 0;
    std::uint64_t read_before_area_ = 0;
};

}  // namespace protocol
