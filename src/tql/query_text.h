// The query language for people: patterns as text and back.
//
//     Domain*[name,label]{name = "branch"} > Node!
//
// docs/query-language.md holds the grammar. There are two texts of a pattern: the full one, which
// reads back as the same pattern, and the short one of the logs, which leaves out long lists and
// the content of blobs.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "error/exception.h"
#include "tql/pattern.h"

namespace tql {

/// The full text: parse_pattern() reads it back as an equal pattern, for every pattern not deeper
/// than kMaxPatternDepth.
[[nodiscard]] std::string pattern_text(const pattern_t& pattern);

/// The print form of the logs: more than five names or successors are shortened, values are as
/// their print(). At most `limit_bytes` bytes, then "..." follows.
[[nodiscard]] std::string pattern_log_text(const pattern_t& pattern,
                                           size_t limit_bytes = 64 * 1024);

/// The text is not a pattern. The exception's text is "line L, column C: expected E, found F".
class query_text_error : public error::Exception {
  public:
    query_text_error(size_t line, size_t column, const std::string& message);

    /// From 1; columns count bytes.
    [[nodiscard]] size_t line() const noexcept { return line_; }
    [[nodiscard]] size_t column() const noexcept { return column_; }
    /// What was expected and what was found, without the place.
    [[nodiscard]] const std::string& message() const noexcept { return message_; }

  private:
    size_t line_;
    size_t column_;
    std::string message_;
};

/// Reads a pattern. Throws query_text_error for anything else, also for steps nested deeper than
/// kMaxPatternDepth. Costs time in proportion to the text, whatever it holds.
[[nodiscard]] pattern_t parse_pattern(std::string_view text);

}  // namespace tql
