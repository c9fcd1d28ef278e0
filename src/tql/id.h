// The object id of queries and events: up to three unsigned 32-bit numbers, stored inline.
//
//   length 0   nothing; also stands for the null NodeId
//   length 2   a stored object: the two words of its NodeId
//   length 3   something inside a stored object: the object, then the number of a child without
//   storage
//
// The id knows nothing of the store. Length 1 is valid but names no object.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <fmt/core.h>
#include <optional>
#include <string>
#include <string_view>

#include "util/node_id.h"

namespace tql {

class id_t {
  public:
    static constexpr size_t kCapacity = 3;

    /// The empty id.
    constexpr id_t() = default;
    constexpr id_t(uint32_t first, uint32_t second) : words_{first, second, 0}, length_(2) {}
    constexpr id_t(uint32_t first, uint32_t second, uint32_t third)
        : words_{first, second, third}, length_(3) {}

    /// The null NodeId gives the empty id, any other an id of length 2.
    static id_t from_node_id(const NodeId& node_id);

    /// Reads the print form: one to three decimal numbers joined by points; the empty text gives
    /// the empty id. None for anything else: signs, blanks, numbers above 2^32 - 1, a fourth
    /// number.
    [[nodiscard]] static std::optional<id_t> parse(std::string_view text);

    [[nodiscard]] constexpr size_t size() const noexcept { return length_; }
    [[nodiscard]] constexpr bool empty() const noexcept { return length_ == 0; }

    /// Throw error::ERange for an index at or beyond size().
    [[nodiscard]] uint32_t& operator[](size_t index);
    [[nodiscard]] const uint32_t& operator[](size_t index) const;

    /// New components are 0. Throws error::ERange for a size above 3.
    void resize(size_t size);
    /// Throws error::ERange when three components are in use.
    void push_back(uint32_t component);
    void clear() noexcept { *this = id_t(); }

    [[nodiscard]] const uint32_t* begin() const noexcept { return words_.data(); }
    [[nodiscard]] const uint32_t* end() const noexcept { return words_.data() + length_; }

    /// Strict: length 0 gives the null NodeId, length 2 the object; throws errors::db_anomaly for
    /// others.
    [[nodiscard]] NodeId to_node_id() const;
    /// Lenient: the null NodeId below length 2, else the first two components.
    [[nodiscard]] NodeId to_node_id_lenient() const noexcept;

    /// The components in decimal joined by points; empty for the empty id.
    [[nodiscard]] std::string to_string() const;

    /// Component by component as unsigned numbers; a prefix sorts before the longer id.
    friend std::strong_ordering operator<=>(const id_t& a, const id_t& b) noexcept;
    // Unused components are always 0, so comparing all of them with the length is exact.
    friend constexpr bool operator==(const id_t& a, const id_t& b) noexcept = default;

  private:
    std::array<uint32_t, kCapacity> words_{};
    uint32_t length_ = 0;
};

/// The key under which a child stands inside its parent in a result tree. The order is that of the
/// fields.
struct internal_id_t {
    /// 0: the one child of its class (uses class_). 1: a child listed by place (class_, ordinal).
    /// 2: a stored object or anything else with an id (id).
    uint32_t kind = 0;
    uint32_t class_ = 0;
    uint32_t ordinal = 0;
    id_t id;

    static internal_id_t singleton(uint32_t class_number) { return {0, class_number, 0, {}}; }
    static internal_id_t by_place(uint32_t class_number, uint32_t place) {
        return {1, class_number, place, {}};
    }
    static internal_id_t stored(const id_t& object) { return {2, 0, 0, object}; }

    friend std::strong_ordering operator<=>(const internal_id_t&, const internal_id_t&) = default;
    friend bool operator==(const internal_id_t&, const internal_id_t&) = default;
};

}  // namespace tql

/// fmt prints an id by its text form.
template <>
struct fmt::formatter<tql::id_t> : fmt::formatter<std::string_view> {
    template <class Context>
    auto format(const tql::id_t& id, Context& context) const {
        return fmt::formatter<std::string_view>::format(id.to_string(), context);
    }
};
