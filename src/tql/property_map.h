// Putting values into a map of properties, and reading a value of an expected kind. Code above this
// layer neither builds values by hand nor casts them.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "tql/property_kinds.h"

namespace tql {

/// Adds a value of the given kind, replacing an entry that stands there:
/// `add<property_uint_t>(map, prop::snmpPort, 161, flags)`.
template <class Kind>
void add(property_map_t& map, uint32_t property, typename Kind::value_type value,
         uint32_t flags = 0) {
    map[property].template emplace<Kind>(property, std::move(value), flags);
}

/// Adds a null value of the given kind, replacing an entry that stands there.
template <class Kind>
void add_null(property_map_t& map, uint32_t property, uint32_t flags = 0) {
    map[property].template emplace<Kind>(Kind::null(property, flags));
}

/// As add(), for a value of an enumeration.
void add_enum(property_map_t& map, uint32_t property, uint32_t enumeration, uint32_t value,
              uint32_t flags = 0);
/// As add_null(), for a value of an enumeration.
void add_null_enum(property_map_t& map, uint32_t property, uint32_t enumeration,
                   uint32_t flags = 0);

/// The extractors throw errors::tql with code 9 on a null and on a value of another kind.
/// References live as long as the value.
[[nodiscard]] uint32_t as_uint(const property_t& value);
[[nodiscard]] bool as_boolean(const property_t& value);
[[nodiscard]] const std::string& as_string(const property_t& value);
[[nodiscard]] const id_t& as_object(const property_t& value);
[[nodiscard]] const std::set<id_t>& as_object_set(const property_t& value);
[[nodiscard]] const std::vector<uint8_t>& as_blob(const property_t& value);
/// Also refuses a value of another enumeration; only the low 17 bits of the value's enumeration
/// count.
[[nodiscard]] uint32_t as_enum(const property_t& value, uint32_t expected_enumeration);

}  // namespace tql
