// A kind of values as people name it: the type and, for enumerations, which one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tql/property.h"

namespace tql {

struct value_kind_t {
    property_type_t type = property_type_t::none;
    uint32_t enumeration = 0;  ///< id of the enumeration; 0 for other types, or when not known

    friend constexpr bool operator==(const value_kind_t&, const value_kind_t&) = default;
};

/// The kind of a value.
[[nodiscard]] value_kind_t kind_of(const property_t& value) noexcept;

/// The word for a type in the query language and at the command line: "string", "strings", "set",
/// "object", "version", "action", "real", "bignum", "gid", "gids", "date", "index", "int", "uint",
/// "bool", "blob", "lob", "oid", "enum". Empty for none and for unknown numbers.
[[nodiscard]] std::string_view type_word(property_type_t type) noexcept;
/// The type of such a word; none for another text.
[[nodiscard]] std::optional<property_type_t> find_type(std::string_view word) noexcept;

}  // namespace tql
