// The language of PropertyPatternSchema: quoted texts joined by "and", "or" and "not", with
// parentheses. Here a text is only checked; who matches lines against it reads it by itself.
//
//   expression   or-term ( "or" or-term )*
//   or-term      and-term ( "and" and-term )*
//   and-term     ' any bytes but a quote '  |  "not" and-term  |  "(" expression ")"
//
// Blanks and control characters between tokens are skipped.
#pragma once

#include <string>
#include <string_view>

namespace dbcache {

/// Deeper nesting of "not" and parentheses is refused, so that a text from outside can't exhaust
/// the stack.
inline constexpr int kMaxPatternNesting = 200;

/// Empty for a well-formed text, else what is wrong at the first fault, as ": Unbalanced quotes".
[[nodiscard]] std::string check_pattern(std::string_view text);

}  // namespace dbcache
