// Values of objects in the form in which they travel, written once when the object is met and sent
// as they are. A select of a hundred thousand objects makes no value of them in between.
//
//   ValueArena     memory for the values of many objects, given back all at once
//   ValueWriter    writes the values of one object after the other into an arena
//   EncodedValues  what it wrote for one object: what a property_map_t looks like on its way, but
//                  for the count in front
//
//   EncodedValues, one after the other:  number of the property 4 | value
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "protocol/byte_writer.h"
#include "tql/property.h"

namespace protocol {
class ioprim;
}

namespace queues {

/// The values of one object, in ascending order of their numbers. Lies in an arena and lives as
/// long as what is there.
struct EncodedValues {
    std::span<const std::uint8_t> bytes;
    std::uint32_t count = 0;

    [[nodiscard]] bool empty() const noexcept { return count == 0; }
};

/// Memory that grows by pieces; what lies in it stays where it is.
class ValueArena {
  public:
    ValueArena() = default;
    ValueArena(const ValueArena&) = delete;
    ValueArena& operator=(const ValueArena&) = delete;

    /// Forgets everything that lies here and keeps some of the memory for what comes next.
    void clear() noexcept;

  private:
    friend class ValueWriter;
    struct Piece {
        std::unique_ptr<std::uint8_t[]> bytes;
        std::size_t size;
    };

    /// The free rest of a piece, of at least `needed` bytes.
    [[nodiscard]] std::span<std::uint8_t> room(std::size_t needed);
    /// The first `size` bytes of what room() gave last aren't free any more.
    void take(std::size_t size) noexcept { used_ += size; }

    std::vector<Piece> pieces_;
    std::size_t current_ = 0;  ///< the piece that is being filled; those behind it are empty
    std::size_t used_ = 0;     ///< of that piece
};

/// One at a time writes into an arena: begin(), the values of an object, finish(). What was begun
/// and not finished is forgotten with the next begin().
class ValueWriter final : private protocol::ByteWriter {
  public:
    /// The arena must outlive the writer.
    explicit ValueWriter(ValueArena& arena) : arena_(arena) {}

    void begin();
    [[nodiscard]] EncodedValues finish();

    // A value of a number that was added before replaces it. Adding in ascending order of numbers
    // is cheapest.

    void add(const tql::property_t& value);
    void add(const tql::property_map_t& values);
    /// A kind whose payload is a text.
    void add_text(tql::property_type_t kind, std::uint32_t number, std::uint32_t flags,
                  std::string_view text) {
        begin_value(kind, number, flags);
        put64(text.size());
        put_bytes(text.data(), text.size());
    }
    /// A kind whose payload is a number of at most 32 bits, or a boolean.
    void add_word(tql::property_type_t kind, std::uint32_t number, std::uint32_t flags,
                  std::uint32_t word) {
        begin_value(kind, number, flags);
        put32(word);
    }

  private:
    struct Place {
        std::uint32_t number;
        std::uint32_t begin;  ///< distance from the first value's begin
    };

    void note_place(std::uint32_t number) {
        ascending_ = ascending_ && (places_.empty() || places_.back().number < number);
        places_.push_back({number, static_cast<std::uint32_t>(area_pos_)});
    }
    void begin_value(tql::property_type_t kind, std::uint32_t number, std::uint32_t flags) {
        note_place(number);
        put32(number);
        put32(static_cast<std::uint32_t>(kind));
        put32(number);
        put32(0);  // it is no null
        put32(flags);
    }
    void next_area(std::size_t needed) override;
    void put_in_order();

    ValueArena& arena_;
    std::vector<Place> places_;
    bool ascending_ = true;
};

/// The values again. Costs what reading them from a sibling costs.
[[nodiscard]] tql::property_map_t decode(const EncodedValues& values);

/// Writes what a record has for the values. As with all of a record, no number straddles two areas
/// of the stream.
void put(protocol::ioprim& out, const EncodedValues& values);

}  // namespace queues
