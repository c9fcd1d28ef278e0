// Small text routines: the quoted form for logs and messages, strict number parsing, dotted
// addresses, splitting and number texts. All are stateless and know the C locale only. Their
// messages reach clients and logs word for word.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "error/exception.h"

namespace error {

/// A text that can't be read as what it should be.
class EParseError : public Exception {
  public:
    using Exception::Exception;
};

/// The same, for an empty text.
class EParseEmptyStringError : public EParseError {
  public:
    using EParseError::EParseError;
};

}  // namespace error

namespace util {

/// `text` between quotation marks, with \a \b \t \n \v \f \r \" \' \\ and three octal digits for
/// other bytes below 32. Bytes from 127 up stand as they are.
[[nodiscard]] std::string quote(std::string_view text);

/// A number in decimal, for T = int32_t, uint32_t and uint64_t, read as the standard stream
/// extraction of T does: leading white space and a sign are allowed, and a negative number for an
/// unsigned T wraps. Throws error::EParseEmptyStringError "Cannot parse empty string to T",
/// error::EParseError "Cannot parse T: "X"" (also out of range) and "Trailing data after T: "X"".
template <class T>
[[nodiscard]] T parse_number(std::string_view text);
template <>
int32_t parse_number<int32_t>(std::string_view text);
template <>
uint32_t parse_number<uint32_t>(std::string_view text);
template <>
uint64_t parse_number<uint64_t>(std::string_view text);

/// A number as strtod reads it, using up the whole text. Throws error::EParseError "Error parsing:
/// "X"". An empty text is used up as a whole and yields 0.
[[nodiscard]] double parse_double(std::string_view text);

/// A dotted address of four numbers, the first in the top byte. Of each number the low 8 bits
/// count, and empty pieces are passed over. Throws error::EParseError "Malformed IP address: "X"",
/// and what parse_number throws.
[[nodiscard]] uint32_t parse_ip(std::string_view text);

/// What stands between separators. Without `keep_empty` empty pieces are dropped; with it a text
/// that ends in the separator gives a last empty piece, and the empty text one empty piece.
[[nodiscard]] std::vector<std::string> split(std::string_view text, char separator,
                                             bool keep_empty);

/// Decimal digits of the whole 64-bit value.
[[nodiscard]] std::string decimal_text(uint64_t value);
/// Upper-case hexadecimal digits, at least 16 and padded on the left with 0 to `width`.
[[nodiscard]] std::string hex_text(uint64_t value, std::size_t width = 16);
/// Decimal digits of a signed value; the second form has at least two digits.
[[nodiscard]] std::string signed_text(int32_t value);
[[nodiscard]] std::string two_digit_text(int32_t value);

}  // namespace util
