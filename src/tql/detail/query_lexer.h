// Reads the small pieces of the query language: signs, words, quoted texts. Keeps the place for
// error messages. What follows what is the parser's business.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tql/query_text.h"

namespace tql::detail {

class QueryLexer {
  public:
    explicit QueryLexer(std::string_view text) : text_(text) {}

    /// Passes over blanks, tabs and line ends.
    void skip_blanks() noexcept;
    /// True at the end of the text, blanks passed over.
    [[nodiscard]] bool at_end() noexcept;
    /// The next byte that isn't blank; 0 at the end.
    [[nodiscard]] char peek() noexcept;
    /// Passes over blanks and `sign` if it stands there.
    [[nodiscard]] bool take(std::string_view sign) noexcept;
    /// As take(), but says what was expected when it isn't there.
    void expect(std::string_view sign);

    /// The name at the present place (letters, digits, "_", not starting with a digit), not passed
    /// over; empty if none stands there.
    [[nodiscard]] std::string_view peek_name() noexcept;
    /// Letters, digits and what numbers consist of besides: points, colons, a sign in front or
    /// behind an exponent. Empty if none stands there.
    [[nodiscard]] std::string_view take_word() noexcept;
    /// Letters and digits alone, for numbers that a sign may follow at once. Empty if none stands
    /// there.
    [[nodiscard]] std::string_view take_digits() noexcept;
    /// A text in double quotes, its escapes resolved. Fails with `what` as the thing expected.
    [[nodiscard]] std::string take_quoted(std::string_view what);

    /// Passes over `count` bytes.
    void advance(size_t count) noexcept { at_ += count; }
    /// The text from the present place on.
    [[nodiscard]] std::string_view rest() const noexcept { return text_.substr(at_); }
    /// The present place, for fail_at().
    [[nodiscard]] size_t place() const noexcept { return at_; }

    /// Throws the error "expected `what`, found ..." for what stands at the present place.
    [[noreturn]] void fail(std::string_view what);
    /// Throws an error with this message for an earlier place.
    [[noreturn]] void fail_at(size_t place, const std::string& message) const;

  private:
    [[nodiscard]] std::string found() const;
    [[nodiscard]] char take_escape();

    std::string_view text_;
    size_t at_ = 0;
};

/// `text` in double quotes. Quotation marks, backslashes, control bytes and bytes that aren't valid
/// UTF-8 are escaped, so that the result is printable and QueryLexer::take_quoted() gives `text`
/// back.
[[nodiscard]] std::string quoted_text(std::string_view text);

}  // namespace tql::detail
