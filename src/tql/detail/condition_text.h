// The conditions of a where clause as text and back: operators, kinds and values.
#pragma once

#include <string>

#include "tql/detail/query_lexer.h"
#include "tql/pattern.h"

namespace tql::detail {

/// "name = "branch"", in a step for this class: reads back there as an identical condition.
[[nodiscard]] std::string condition_text(const condition_t& condition, uint32_t class_number);
/// Reads one condition of a step for this class; fails through the lexer.
[[nodiscard]] condition_t read_condition(QueryLexer& lexer, uint32_t class_number);

/// The name of a property, or its number where it has none.
[[nodiscard]] std::string property_text(uint32_t property);
/// Reads a property by name or number.
[[nodiscard]] uint32_t read_property(QueryLexer& lexer);
/// Reads a number, decimal or hexadecimal, that `what` describes.
[[nodiscard]] uint32_t read_number(QueryLexer& lexer, std::string_view what);

}  // namespace tql::detail
