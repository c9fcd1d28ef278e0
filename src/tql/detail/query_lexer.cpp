#include "tql/detail/query_lexer.h"

#include <algorithm>
#include <fmt/format.h>

#include "tql/detail/scalar_text.h"

namespace tql::detail {

namespace {

bool is_digit(char c) noexcept {
    return c >= '0' && c <= '9';
}

bool is_name_char(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || is_digit(c);
}

bool is_blank(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool is_continuation(char c) noexcept {
    return (static_cast<uint8_t>(c) & 0xC0) == 0x80;
}

// Length of the valid UTF-8 sequence of two bytes and more at the start of `text`; 0 if there is
// none.
size_t utf8_length(std::string_view text) noexcept {
    const auto lead = static_cast<uint8_t>(text[0]);
    const size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                          : lead >= 0xE0 && lead <= 0xEF ? 3
                          : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                         : 0;
    if (length == 0 || text.size() < length) return 0;
    if (!std::ranges::all_of(text.substr(1, length - 1), is_continuation)) return 0;
    const auto second = static_cast<uint8_t>(text[1]);
    const bool legal = (lead != 0xE0 || second >= 0xA0) && (lead != 0xED || second < 0xA0) &&
                       (lead != 0xF0 || second >= 0x90) && (lead != 0xF4 || second < 0x90);
    return legal ? length : 0;
}

}  // namespace

void QueryLexer::skip_blanks() noexcept {
    while (at_ < text_.size() && is_blank(text_[at_])) ++at_;
}

bool QueryLexer::at_end() noexcept {
    skip_blanks();
    return at_ == text_.size();
}

char QueryLexer::peek() noexcept {
    return at_end() ? '\0' : text_[at_];
}

bool QueryLexer::take(std::string_view sign) noexcept {
    skip_blanks();
    if (!text_.substr(at_).starts_with(sign)) return false;
    at_ += sign.size();
    return true;
}

void QueryLexer::expect(std::string_view sign) {
    if (!take(sign)) fail(fmt::format("\"{}\"", sign));
}

std::string_view QueryLexer::peek_name() noexcept {
    skip_blanks();
    size_t end = at_;
    if (end < text_.size() && is_digit(text_[end])) return {};
    while (end < text_.size() && is_name_char(text_[end])) ++end;
    return text_.substr(at_, end - at_);
}

std::string_view QueryLexer::take_word() noexcept {
    skip_blanks();
    const size_t start = at_;
    const auto belongs = [&](size_t i) {
        const char c = text_[i];
        if (is_name_char(c) || c == '.' || c == ':') return true;
        if (c != '-' && c != '+') return false;
        if (i == start) return c == '-';
        // A sign inside a number belongs to its exponent: 1e-7.
        return (text_[i - 1] == 'e' || text_[i - 1] == 'E') &&
               is_digit(text_[start + (text_[start] == '-')]);
    };
    while (at_ < text_.size() && belongs(at_)) ++at_;
    return text_.substr(start, at_ - start);
}

std::string_view QueryLexer::take_digits() noexcept {
    skip_blanks();
    const size_t start = at_;
    while (at_ < text_.size() && is_name_char(text_[at_])) ++at_;
    return text_.substr(start, at_ - start);
}

char QueryLexer::take_escape() {
    const size_t start = at_++;
    const char c = at_ < text_.size() ? text_[at_++] : '\0';
    switch (c) {
        case '"':
        case '\\':
            return c;
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        case 'x': {
            const auto byte = read_integer<uint8_t>(fmt::format("0x{}", text_.substr(at_, 2)));
            if (!byte || at_ + 2 > text_.size()) break;
            at_ += 2;
            return static_cast<char>(*byte);
        }
        default:
            break;
    }
    fail_at(start, "expected one of the escapes \\\", \\\\, \\n, \\r, \\t and \\x with two digits");
}

std::string QueryLexer::take_quoted(std::string_view what) {
    skip_blanks();
    const size_t start = at_;
    if (!take("\"")) fail(what);
    std::string result;
    while (at_ < text_.size() && text_[at_] != '"') {
        const size_t plain = std::min(text_.find_first_of("\"\\", at_), text_.size());
        result += text_.substr(at_, plain - at_);
        at_ = plain;
        if (at_ < text_.size() && text_[at_] == '\\') result += take_escape();
    }
    if (at_ == text_.size()) fail_at(start, "expected a closing quotation mark for this text");
    ++at_;
    return result;
}

std::string QueryLexer::found() const {
    if (at_ >= text_.size()) return "the end";
    size_t end = at_;
    while (end < text_.size() && end - at_ < 30 && is_name_char(text_[end])) ++end;
    if (end == at_) end += std::max<size_t>(1, utf8_length(text_.substr(at_)));
    return quoted_text(text_.substr(at_, end - at_));
}

void QueryLexer::fail(std::string_view what) {
    skip_blanks();
    fail_at(at_, fmt::format("expected {}, found {}", what, found()));
}

void QueryLexer::fail_at(size_t place, const std::string& message) const {
    const std::string_view before = text_.substr(0, place);
    const size_t line_start = before.rfind('\n') + 1;  // npos + 1 is 0
    throw query_text_error(static_cast<size_t>(std::ranges::count(before, '\n')) + 1,
                           place - line_start + 1, message);
}

std::string quoted_text(std::string_view text) {
    std::string result = "\"";
    while (!text.empty()) {
        const char c = text[0];
        const auto byte = static_cast<uint8_t>(c);
        size_t taken = 1;
        if (c == '"' || c == '\\')
            result.append({'\\', c});
        else if (c == '\n')
            result += "\\n";
        else if (c == '\r')
            result += "\\r";
        else if (c == '\t')
            result += "\\t";
        else if (byte >= 0x20 && byte < 0x7F)
            result += c;
        else if (const size_t length = byte >= 0x80 ? utf8_length(text) : 0; length != 0) {
            taken = length;
            result += text.substr(0, length);
        } else
            result += fmt::format("\\x{:02x}", byte);
        text.remove_prefix(taken);
    }
    return result + '"';
}

}  // namespace tql::detail
