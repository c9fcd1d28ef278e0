// NodeId: the identity of a stored object. It never changes while the object lives, wherever the
// object lies in the file. It says nothing about the object's class or place in the tree.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <fmt/format.h>
#include <functional>
#include <string>
#include <string_view>

/// Two words, compared first word first as unsigned numbers. All zero is null.
struct NodeId {
    uint32_t first = 0;
    uint32_t second = 0;

    [[nodiscard]] constexpr bool is_null() const noexcept { return first == 0 && second == 0; }

    /// Both words in decimal with a point between them, as in "0.1".
    [[nodiscard]] std::string to_string() const;

    /// Reads exactly the form that to_string() writes: digits, one point, digits, each number below
    /// 2^32, leading zeros allowed. Throws error::EParseEmptyStringError for an empty text and
    /// error::EParseError for any other.
    [[nodiscard]] static NodeId parse(std::string_view text);

    friend constexpr auto operator<=>(const NodeId&, const NodeId&) noexcept = default;
};

/// fmt prints a NodeId by its text form.
template <>
struct fmt::formatter<NodeId> : fmt::formatter<std::string_view> {
    template <class Context>
    auto format(const NodeId& id, Context& context) const {
        return fmt::formatter<std::string_view>::format(id.to_string(), context);
    }
};

template <>
struct std::hash<NodeId> {
    std::size_t operator()(const NodeId& id) const noexcept {
        return std::hash<uint64_t>{}((static_cast<uint64_t>(id.first) << 32 | id.second) *
                                     0x9E3779B97F4A7C15U);
    }
};
