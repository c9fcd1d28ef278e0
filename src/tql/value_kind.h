// A kind of values as people name it: the type and, for enumerations, which one. A unit travels as
// a blob and is written as text, so it is a kind of its own here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tql/property.h"

namespace tql {

struct value_kind_t {
    property_type_t type = property_type_t::none;
    uint32_t enumeration = 0;  ///< id of the enumeration; 0 for other types, or when not known
    bool is_unit = false;      ///< a blob that holds a unit expression

    friend constexpr bool operator==(const value_kind_t&, const value_kind_t&) = default;
};

/// The kind of a value. A blob is a unit if its property is one and its bytes have a text
/// (find_unit_text()).
[[nodiscard]] value_kind_t kind_of(const property_t& value);

/// The word for a kind in the query language and at the command line: "string", "strings", "set",
/// "object", "version", "action", "real", "bignum", "gid", "gids", "date", "index", "int", "uint",
/// "bool", "blob", "unit", "lob", "oid", "enum". Empty for none and for unknown numbers.
[[nodiscard]] std::string_view kind_word(value_kind_t kind) noexcept;
/// The kind of such a word, an enumeration without saying which; none for another text.
[[nodiscard]] std::optional<value_kind_t> find_kind(std::string_view word) noexcept;

/// The text of a stored unit expression, which reads back as the same unit: "kB/s". None for bytes
/// that aren't one, and for units that no text stands for.
[[nodiscard]] std::optional<std::string> find_unit_text(const std::vector<uint8_t>& bytes);

}  // namespace tql
