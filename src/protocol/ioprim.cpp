#include "protocol/ioprim.h"

#include <algorithm>

#include "error/exception.h"
#include "io/stream.h"

namespace protocol {

bool ioprim::put_together(const void* bytes, std::size_t size) {
    if (area_left() < size) {
        const bool is_new = area_ != nullptr && area_pos_ == 0;
        if (!is_new) next_area(1);
        if (area_left() < size) return false;
    }
    put_bytes(bytes, size);
    return true;
}

void ioprim::commit() {
    publish();
    io::waitReady(out_);
}

void ioprim::publish() {
    const std::size_t written = area_pos_;
    const bool begun = area_ != nullptr;
    // Forgotten first: a commit that throws leaves no area that a later write could fall into.
    area_ = nullptr;
    area_size_ = area_pos_ = 0;
    if (begun) out_.writeCommit(written);
}

void ioprim::next_area(std::size_t needed) {
    publish();
    io::waitReady(out_);
    const std::size_t size = out_.writeBegin(area_);
    error::check(size >= needed, "New write area of size {} too small for primitive write", size);
    area_size_ = size;
}

void ioprim::get_bytes(void* bytes, std::size_t size) {
    auto* to = static_cast<std::uint8_t*>(bytes);
    get_runs(size, [&to](const std::uint8_t* run, std::size_t length) {
        std::memcpy(to, run, length);
        to += length;
    });
}

std::size_t ioprim::get_available() {
    if (read_pos_ == read_size_) next_read_area();
    return read_size_ - read_pos_;
}

void ioprim::next_read_area() {
    io::waitReady(in_);
    read_size_ = in_.readBegin(read_area_);
    error::check(read_size_ > 0, "New read area of size 0");
}

void ioprim::finish_read_area() {
    // The area goes back at its last byte and not at the next read: its writer may be waiting for
    // the room.
    const std::size_t size = read_size_;
    read_before_area_ += size;
    read_area_ = nullptr;
    read_size_ = read_pos_ = 0;
    in_.readCommit(size);
}

}  // namespace protocol
