// The layout file as tokens. Blanks, tabs, line ends and comments are gone.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "tqlengine/layout_file.h"

namespace tqlengine::detail {

enum class layout_token_t : uint8_t {
    end,         ///< of the file
    identifier,  ///< text: the name
    string,      ///< text: what stands between the quotes, without the backslashes
    number,      ///< text: its digits, with the sign if there is one
    brace_open,
    brace_close,
    semicolon,
    comma,
    kw_group,
    kw_class,
    kw_unit,
    kw_on_delete,
    kw_on_create,
    kw_null,
    kw_values,
    kw_handler,
    kw_description,
    kw_multiline,
    kw_blobmime,
    kw_hidden_create,
    kw_required_experience,
    kw_password,
    kw_special,
    kw_object,
    kw_template,
    other,  ///< a byte that begins none of these
};

/// Takes a source apart, one token at a time.
class LayoutLexer {
  public:
    /// `source` must outlive this.
    explicit LayoutLexer(const LayoutSource& source) : source_(source) {}

    /// Goes on to the next token; at the end of the file it stays there.
    void advance();

    [[nodiscard]] layout_token_t token() const noexcept { return token_; }
    /// Of an identifier, a string or a number.
    [[nodiscard]] std::string& text() noexcept { return text_; }
    /// Line of the current token, from 1.
    [[nodiscard]] uint64_t line() const noexcept { return line_; }

  private:
    static constexpr int kEnd = -1;
    static constexpr size_t kBufferBytes = 16'384;

    /// The byte at the place of reading, 0 to 255, or kEnd. Reads on when the buffer is used up.
    int peek();
    void take() { text_.push_back(buffer_[next_++]); }
    void skip() noexcept { ++next_; }

    void skip_to_token();
    layout_token_t read_string();
    layout_token_t read_number();
    layout_token_t read_word();

    const LayoutSource& source_;
    std::array<char, kBufferBytes> buffer_;
    size_t next_ = 0;
    size_t filled_ = 0;
    bool exhausted_ = false;
    uint64_t line_ = 1;
    layout_token_t token_ = layout_token_t::other;
    std::string text_;
};

}  // namespace tqlengine::detail
