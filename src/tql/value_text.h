// Single values as people write and read them: at the command line, in forms and in listings. Not
// quoted, unlike the values inside a pattern (tql/query_text.h), and without JSON, which the
// gateway adds.
//
//   string         as it is                      gid            01:02:03:04, or a number
//   strings, gids  joined by ","                 oid            1.3.6.1.2
//   object         1.4294960001                  version        12.345
//   set            ids joined by ","             bool           true, false
//   real           0.5, -inf                     enum           its text, or its number
//   blob, lob      base64                        date           2026-11-22 22:30:00 (UTC)
//   unit           kB/s
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "error/exception.h"
#include "tql/property.h"
#include "tql/value_kind.h"

namespace tql {

/// A text that isn't a value of the kind asked for; the text says which kind and what it looks
/// like.
class value_text_error : public error::Exception {
  public:
    using Exception::Exception;
};

/// Reads a value of one property. The kind's type must not be none. In a list a comma or backslash
/// that belongs to an element stands behind a backslash, and \\e is an empty element that stands
/// alone. Throws value_text_error.
[[nodiscard]] value_t parse_value(uint32_t property, value_kind_t kind, std::string_view text);

/// The text of a value, which parse_value() reads back as kind_of() the value with the same
/// payload, a unit as the same unit; "null" for a null value. Enumerations print the text of their
/// value where it is unique, dates print in UTC.
[[nodiscard]] std::string value_text(const property_t& value);

/// A null value of that kind, whose type must not be none.
[[nodiscard]] value_t make_null(uint32_t property, value_kind_t kind);

/// A value from the text of an element each: for lists and sets that come in as arrays. The kind
/// must be string_list, object_set, gid_list or oid. Throws value_text_error.
[[nodiscard]] value_t parse_value_list(uint32_t property, value_kind_t kind,
                                       const std::vector<std::string>& elements);
/// The elements of such a value, one text each.
[[nodiscard]] std::vector<std::string> value_text_list(const property_t& value);

/// Standard base64 with padding.
[[nodiscard]] std::string to_base64(const std::vector<uint8_t>& bytes);
/// Strict reading: whole groups of four, padding only at the end; throws value_text_error.
[[nodiscard]] std::vector<uint8_t> from_base64(std::string_view text);

}  // namespace tql
