#include "queues/detail/record_buffer.h"

#include <cstring>

#include "io/exception.h"

namespace queues::detail {

void RecordBuffer::take_message(io::IStream& from) {
    const std::uint8_t* message = nullptr;
    const std::size_t size = from.readBegin(message);
    bytes_.insert(bytes_.end(), message, message + size);
    from.readCommit(size);
}

void RecordBuffer::clear() {
    // A large record is rare, and its memory goes with it.
    bytes_ = {};
    position_ = 0;
}

std::optional<std::uint32_t> RecordBuffer::word(std::size_t index) const {
    std::uint32_t value = 0;
    if (bytes_.size() < (index + 1) * sizeof value) return std::nullopt;
    std::memcpy(&value, bytes_.data() + index * sizeof value, sizeof value);
    return value;
}

std::size_t RecordBuffer::readBegin(const std::uint8_t*& out) {
    if (is_read()) throw io::ENotReady(nameText());
    out = bytes_.data() + position_;
    return bytes_.size() - position_;
}

}  // namespace queues::detail
