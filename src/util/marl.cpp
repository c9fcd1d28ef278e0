#include "util/marl.h"

#include <vector>

#include "util/text.h"

namespace marl {

namespace {

// The character classes of the C locale.
bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

}  // namespace

/// One walk over one text.
class MarlParser {
  public:
    MarlParser(MarlConversion& conversion, std::string_view text)
        : conversion_(conversion), text_(text) {}

    void run() {
        while (!at_end()) step();
        if (!open_.empty())
            throw error::EParseError(fmt::format("Unterminated {}-tag", open_.back()));
    }

  private:
    void step() {
        switch (text_[at_]) {
            case '\r':
                ++at_;
                break;
            case '\n':
                conversion_.line_feed();
                ++at_;
                break;
            case '&':
                throw error::EParseError("& (ampersand) not allowed");
            case '<':
                ++at_;
                read_tag();
                break;
            default:
                read_run();
        }
    }

    void read_run() {
        const std::size_t end = std::min(text_.find_first_of("\n\r&<", at_), text_.size());
        conversion_.text_run(at_, end);
        at_ = end;
    }

    void read_tag() {
        const std::size_t start = at_;
        if (next_is('/')) ++at_;
        skip_letters();
        const std::string_view name = text_.substr(start, at_ - start);
        if (name == "b" || name == "i" || name == "u") {
            open_tag(name);
        } else if (name == "hr") {
            conversion_.rule();
        } else if (name == "link") {
            read_link();
        } else if (name.starts_with('/')) {
            close_tag(name.substr(1));
        } else {
            throw error::EParseError(fmt::format("Unrecognized tag: {}", name));
        }
        skip_space();
        if (!next_is('>')) throw error::EParseError("Improperly terminated tag");
        ++at_;
    }

    void open_tag(std::string_view name) {
        open_.push_back(name);
        switch (name.front()) {
            case 'b':
                return conversion_.open_b();
            case 'i':
                return conversion_.open_i();
            default:
                return conversion_.open_u();
        }
    }

    void close_tag(std::string_view name) {
        if (open_.empty() || open_.back() != name) throw error::EParseError("Mismatched tags");
        open_.pop_back();
        switch (name.front()) {
            case 'b':
                return conversion_.close_b();
            case 'i':
                return conversion_.close_i();
            default:
                return conversion_.close_u();
        }
    }

    void read_link() {
        skip_space();
        const std::size_t start = at_;
        skip_letters();
        const std::string_view attribute = text_.substr(start, at_ - start);
        if (attribute != "url")
            throw error::EParseError(
                fmt::format("Unrecognized attribute to <link>: {}", attribute));
        skip_space();
        if (!next_is('=')) throw error::EParseError("Expected = after url");
        ++at_;
        skip_space();
        if (!next_is('"') && !next_is('\'')) throw error::EParseError("Expected \" after =");
        const std::size_t value = at_ + 1;
        const std::size_t end = std::min(text_.find(text_[at_], value), text_.size());
        conversion_.link(text_.substr(value, end - value));
        if (end == text_.size()) throw error::EParseError("Improperly quoted attribute");
        at_ = end + 1;
    }

    [[nodiscard]] bool at_end() const { return at_ == text_.size(); }
    [[nodiscard]] bool next_is(char c) const { return !at_end() && text_[at_] == c; }
    void skip_letters() {
        while (!at_end() && is_letter(text_[at_])) ++at_;
    }
    void skip_space() {
        while (!at_end() && is_space(text_[at_])) ++at_;
    }

    MarlConversion& conversion_;
    std::string_view text_;
    std::size_t at_ = 0;
    std::vector<std::string_view> open_;
};

void MarlConversion::parse(std::string_view text) {
    MarlParser(*this, text).run();
}

}  // namespace marl
