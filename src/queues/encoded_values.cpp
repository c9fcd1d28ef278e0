#include "queues/encoded_values.h"

#include <algorithm>
#include <cstring>

#include "io/memory_stream.h"
#include "queues/detail/wire.h"

namespace queues {

namespace {

constexpr std::size_t kPiece_bytes = 64U << 10;
/// What clear() keeps at most.
constexpr std::size_t kKeptPieces = 64;
/// Room for the values of an object of usual size.
constexpr std::size_t kUsual_bytes = 512;

}  // namespace

// ---- ValueArena ---------------------------------------------------------------------------------

void ValueArena::clear() noexcept {
    std::erase_if(pieces_, [](const Piece& piece) { return piece.size > kPiece_bytes; });
    if (pieces_.size() > kKeptPieces) pieces_.erase(pieces_.begin() + kKeptPieces, pieces_.end());
    current_ = used_ = 0;
}

std::span<std::uint8_t> ValueArena::room(std::size_t needed) {
    for (; current_ < pieces_.size(); ++current_, used_ = 0) {
        const Piece& piece = pieces_[current_];
        if (piece.size - used_ >= needed) return {piece.bytes.get() + used_, piece.size - used_};
    }
    const std::size_t size = std::max(kPiece_bytes, needed);
    pieces_.push_back({std::make_unique_for_overwrite<std::uint8_t[]>(size), size});
    return {pieces_.back().bytes.get(), size};
}

// ---- ValueWriter --------------------------------------------------------------------------------

void ValueWriter::begin() {
    const std::span<std::uint8_t> room = arena_.room(kUsual_bytes);
    area_ = room.data();
    area_size_ = room.size();
    area_pos_ = 0;
    places_.clear();
    ascending_ = true;
}

// The values of one object lie in one piece of memory.
void ValueWriter::next_area(std::size_t needed) {
    const std::span<std::uint8_t> room = arena_.room(2 * area_pos_ + needed);
    std::memcpy(room.data(), area_, area_pos_);
    area_ = room.data();
    area_size_ = room.size();
}

void ValueWriter::add(const tql::property_t& value) {
    note_place(value.property);
    put32(value.property);
    detail::put(*this, value);
}

void ValueWriter::add(const tql::property_map_t& values) {
    for (const auto& [number, value] : values) add(*value);
}

EncodedValues ValueWriter::finish() {
    if (!ascending_) put_in_order();
    arena_.take(area_pos_);
    return {{area_, area_pos_}, static_cast<std::uint32_t>(places_.size())};
}

void ValueWriter::put_in_order() {
    struct Value {
        std::uint32_t number;
        std::span<const std::uint8_t> bytes;
    };
    std::vector<Value> values;
    for (std::size_t i = 0; i < places_.size(); ++i) {
        const std::size_t end = i + 1 < places_.size() ? places_[i + 1].begin : area_pos_;
        values.push_back({places_[i].number, {area_ + places_[i].begin, end - places_[i].begin}});
    }
    std::stable_sort(values.begin(), values.end(),
                     [](const Value& a, const Value& b) { return a.number < b.number; });
    std::vector<std::uint8_t> sorted;
    sorted.reserve(area_pos_);
    places_.clear();
    for (std::size_t i = 0; i < values.size(); ++i) {
        // Of values of one number the last one counts.
        if (i + 1 < values.size() && values[i + 1].number == values[i].number) continue;
        places_.push_back({values[i].number, static_cast<std::uint32_t>(sorted.size())});
        sorted.insert(sorted.end(), values[i].bytes.begin(), values[i].bytes.end());
    }
    std::memcpy(area_, sorted.data(), sorted.size());
    area_pos_ = sorted.size();
}

// ---- on the way ---------------------------------------------------------------------------------

tql::property_map_t decode(const EncodedValues& values) {
    io::MemoryStream stream({values.bytes.begin(), values.bytes.end()});
    protocol::ioprim primitives(stream, stream);
    detail::Reader in(primitives, RETURN_TQL_SELECT);
    tql::property_map_t decoded;
    decoded.reserve(values.count);
    for (std::uint32_t i = 0; i < values.count; ++i) {
        const std::uint32_t number = in.get32();
        detail::get(in, decoded[number]);
    }
    return decoded;
}

void put(protocol::ioprim& out, const EncodedValues& values) {
    out.put32(values.count);
    if (out.put_together(values.bytes.data(), values.bytes.size())) return;
    for (const auto& [number, value] : decode(values)) {
        out.put32(number);
        detail::put(out, value);
    }
}

}  // namespace queues
