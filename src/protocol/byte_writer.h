// protocol::ByteWriter: primitives into memory, number by number, in host order. Whence the memory
// comes and what becomes of it is the business of the classes derived from it: an ioprim writes
// into the areas of a stream, others collect what is to be sent later.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace protocol {

class ByteWriter {
  public:
    ByteWriter(const ByteWriter&) = delete;
    ByteWriter& operator=(const ByteWriter&) = delete;

    void put32(std::uint32_t value) { put_number(value); }
    void put64(std::uint64_t value) { put_number(value); }
    /// Only the bytes; the length is the caller's to write.
    void put_bytes(const void* bytes, std::size_t size) {
        const auto* from = static_cast<const std::uint8_t*>(bytes);
        while (size > 0) {
            if (area_pos_ == area_size_) [[unlikely]]
                next_area(1);
            const std::size_t part = std::min(size, area_size_ - area_pos_);
            std::memcpy(area_ + area_pos_, from, part);
            area_pos_ += part;
            from += part;
            size -= part;
        }
    }

  protected:
    ByteWriter() = default;
    ~ByteWriter() = default;

    /// Called when fewer than `needed` bytes, at most 8 unless the derived class asks for more
    /// itself, are left of the area: makes room for them.
    virtual void next_area(std::size_t needed) = 0;
    [[nodiscard]] std::size_t area_left() const noexcept { return area_size_ - area_pos_; }

    std::uint8_t* area_ = nullptr;
    std::size_t area_size_ = 0;
    std::size_t area_pos_ = 0;

  private:
    template <class Number>
    void put_number(Number value) {
        if (area_left() < sizeof value) [[unlikely]]
            next_area(sizeof value);
        std::memcpy(area_ + area_pos_, &value, sizeof value);
        area_pos_ += sizeof value;
    }
};

}  // namespace protocol
