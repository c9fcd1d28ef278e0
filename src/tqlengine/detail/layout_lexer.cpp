#include "tqlengine/detail/layout_lexer.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace tqlengine::detail {

namespace {

using enum layout_token_t;

constexpr std::pair<std::string_view, layout_token_t> kKeywords[] = {
    {"group", kw_group},
    {"class", kw_class},
    {"unit", kw_unit},
    {"on_delete", kw_on_delete},
    {"on_create", kw_on_create},
    {"null", kw_null},
    {"values", kw_values},
    {"handler", kw_handler},
    {"description", kw_description},
    {"multiline", kw_multiline},
    {"blobmime", kw_blobmime},
    {"hidden_create", kw_hidden_create},
    {"required_experience", kw_required_experience},
    {"password", kw_password},
    {"special", kw_special},
    {"object", kw_object},
    {"template", kw_template},
};

bool is_digit(int c) noexcept {
    return c >= '0' && c <= '9';
}

bool begins_word(int c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

}  // namespace

int LayoutLexer::peek() {
    if (next_ == filled_) {
        if (exhausted_) return kEnd;
        next_ = 0;
        filled_ = source_(buffer_.data(), buffer_.size());
        exhausted_ = filled_ == 0;
        if (exhausted_) return kEnd;
    }
    return static_cast<unsigned char>(buffer_[next_]);
}

void LayoutLexer::skip_to_token() {
    for (bool in_comment = false;; skip()) {
        const int c = peek();
        if (c == kEnd) return;
        if (c == '\n') {
            in_comment = false;
            ++line_;
        } else if (c == '#') {
            in_comment = true;
        } else if (!in_comment && c != ' ' && c != '\t') {
            return;
        }
    }
}

void LayoutLexer::advance() {
    skip_to_token();
    text_.clear();
    const int c = peek();
    if (c == kEnd)
        token_ = end;
    else if (c == '"')
        token_ = read_string();
    else if (c == '-' || is_digit(c))
        token_ = read_number();
    else if (begins_word(c))
        token_ = read_word();
    else {
        skip();
        token_ = c == '{'   ? brace_open
                 : c == '}' ? brace_close
                 : c == ';' ? semicolon
                 : c == ',' ? comma
                            : other;
    }
}

// A quotation mark without its fellow on the line begins no token.
layout_token_t LayoutLexer::read_string() {
    skip();
    for (;;) {
        int c = peek();
        const bool quoted = c == '\\';
        if (quoted) {
            skip();
            c = peek();
        }
        if (c == kEnd || c == '\n') return other;
        if (c == '"' && !quoted) break;
        take();
    }
    skip();
    return string;
}

layout_token_t LayoutLexer::read_number() {
    take();
    while (is_digit(peek())) take();
    return text_ == "-" ? other : number;
}

// A word of one sign is none.
layout_token_t LayoutLexer::read_word() {
    take();
    for (int c = peek(); begins_word(c) || is_digit(c); c = peek()) take();
    const auto* const keyword =
        std::ranges::find(kKeywords, text_, &std::pair<std::string_view, layout_token_t>::first);
    if (keyword != std::end(kKeywords)) return keyword->second;
    return text_.size() > 1 ? identifier : other;
}

}  // namespace tqlengine::detail
