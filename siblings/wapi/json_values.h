// Property values as JSON and back.
//
//   kind                          JSON
//   string                        text
//   strings, set, gids            list of texts
//   object, version, gid, oid,    text, as people write them (tql/value_text.h)
//   date, bignum, unit,
//   blob, lob
//   int, uint, index, action      number
//   real                          number; text where it is not finite
//   bool                          true, false
//   enum                          its text, or its number where it has none
//   null                          null
//
// Each property has a kind in each class (tql::property_kind). A value of another one has the form
// {"type": "uint", "value": 5}, an enumeration {"type": "enum", "enumeration": "Status", "value":
// "Alert"}. On the way in a text in the form of the command line will do for every kind, and
// {"inherit": true} asks for the value of the inheritance parent. Nothing here knows requests or
// answers.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "tql/property.h"

namespace wapi {

/// Reads a value of this property, which must have a name, for an object of this class; cls::Any
/// for the kinds that are usual. Throws errors::tql with the name of the property in its text:
/// ERR_ILLEGAL_TYPE for JSON of another type than the kind's, ERR_ILLEGAL_VALUE for a text that is
/// no value of the kind.
[[nodiscard]] tql::value_t value_from_json(uint32_t class_number, uint32_t property,
                                           const nlohmann::json& json);

/// Reads an object of values by property name, in the order of the names. Throws errors::tql, with
/// ERR_NO_SUCH_PROPERTY for a name that no property has.
[[nodiscard]] std::vector<tql::value_t> values_from_json(uint32_t class_number,
                                                         const nlohmann::json& object);

/// Whether it takes the class to read such an object.
[[nodiscard]] bool depend_on_class(const nlohmann::json& object);

/// The inverse of value_from_json(); flags and origins are left out.
[[nodiscard]] nlohmann::ordered_json value_to_json(uint32_t class_number,
                                                   const tql::property_t& value);

/// Values by name, in order of their numbers. A number without name is its own name.
[[nodiscard]] nlohmann::ordered_json values_to_json(uint32_t class_number,
                                                    const tql::property_map_t& values);

/// The names of the values that are inherited, in order of their numbers.
[[nodiscard]] nlohmann::ordered_json inherited_to_json(const tql::property_map_t& values);

/// The names of those values of a template that a create takes: not what the server computes, not
/// actions, and not the parent, which a create tells in a field of its own.
[[nodiscard]] nlohmann::ordered_json settable_to_json(const tql::property_map_t& values);

}  // namespace wapi
