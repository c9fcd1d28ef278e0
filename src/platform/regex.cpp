#include "platform/regex.h"

#include <algorithm>
#include <array>
#include <regex.h>

namespace platform {

namespace {

/// Reckons what a pattern comes to when it is compiled. Rather too much than too little; whether
/// the pattern is well formed is for the compiler to say.
class Reckoning {
  public:
    explicit Reckoning(std::string_view pattern) : rest_(pattern) {}

    [[nodiscard]] bool fits() {
        while (!rest_.empty())
            if (!step()) return false;
        return pieces_.back() <= Regex::kMostPieces;
    }

  private:
    /// Takes one sign, bracket or repetition; false as soon as a limit is passed.
    bool step() {
        const char c = take();
        switch (c) {
            case '(':
                pieces_.push_back(0);
                last_ = 0;
                return pieces_.size() <= Regex::kDeepestGroup;
            case ')':
                return close_group();
            case '+':
                return repeat(2);
            case '{':
                return repeat(times());
            case '*':
            case '?':
                return repeat(1);
            case '[':
                skip_bracket();
                break;
            case '\\':
                if (!rest_.empty()) take();
                break;
            default:
                break;
        }
        return add(1);
    }

    bool close_group() {
        const std::size_t inside = pieces_.back();
        if (pieces_.size() == 1) return add(1);
        pieces_.pop_back();
        return add(inside + 1);
    }
    bool add(std::size_t size) {
        last_ = size;
        pieces_.back() += size;
        return pieces_.back() <= Regex::kMostPieces;
    }
    /// What came last counts `count` times; each repetition is a piece as well.
    bool repeat(std::size_t count) {
        pieces_.back() -= last_;
        return add((last_ + 1) * std::max<std::size_t>(count, 1));
    }

    /// The greater bound of a repetition, one more for an open one.
    std::size_t times() {
        std::size_t greatest = number();
        if (rest_.starts_with(',')) {
            take();
            greatest = std::max(greatest + 1, number());
        }
        if (rest_.starts_with('}')) take();
        return greatest;
    }
    std::size_t number() {
        std::size_t value = 0;
        while (!rest_.empty() && rest_.front() >= '0' && rest_.front() <= '9')
            value = std::min<std::size_t>(value * 10 + static_cast<std::size_t>(take() - '0'),
                                          Regex::kMostPieces);
        return value;
    }
    /// A bracket may hold a ']' at its beginning, and classes in brackets of their own.
    void skip_bracket() {
        if (rest_.starts_with('^')) take();
        if (rest_.starts_with(']')) take();
        while (!rest_.empty() && take_inside() != ']') {
        }
    }
    char take_inside() {
        const char c = take();
        if (c != '[' || rest_.empty()) return c;
        const char kind = rest_.front();
        if (kind != ':' && kind != '.' && kind != '=') return c;
        const std::size_t end = rest_.find(std::string{kind, ']'}, 1);
        if (end != std::string_view::npos) rest_.remove_prefix(end + 2);
        return c;
    }
    char take() {
        const char c = rest_.front();
        rest_.remove_prefix(1);
        return c;
    }

    std::string_view rest_;
    /// Of each group that is open, the outermost being the pattern itself.
    std::vector<std::size_t> pieces_{0};
    /// Of what a repetition that comes now would repeat.
    std::size_t last_ = 0;
};

}  // namespace

struct Regex::Compiled {
    regex_t program{};
    explicit Compiled(const std::string& pattern) {
        if (pattern.find('\0') != std::string::npos)
            throw ERegex("Zero byte in regular expression");
        if (!Reckoning(pattern).fits()) throw ERegex("Regular expression too big");
        const int code = ::regcomp(&program, pattern.c_str(), REG_EXTENDED);
        if (code == 0) return;
        std::array<char, 80> message{};
        ::regerror(code, &program, message.data(), message.size());
        throw ERegex(message.data());
    }
    ~Compiled() { ::regfree(&program); }
    Compiled(const Compiled&) = delete;
    Compiled& operator=(const Compiled&) = delete;

    /// Searches `text` by its length, so zero bytes are bytes like others. `places` holds at least
    /// one place.
    [[nodiscard]] bool search(std::string_view text, std::vector<regmatch_t>& places) const {
        places[0] = {0, static_cast<regoff_t>(text.size())};
        return ::regexec(&program, text.data(), places.size(), places.data(), REG_STARTEND) == 0;
    }
};

Regex::Regex(const std::string& pattern) : compiled_(std::make_unique<Compiled>(pattern)) {}
Regex::~Regex() = default;
Regex::Regex(Regex&&) noexcept = default;
Regex& Regex::operator=(Regex&&) noexcept = default;

bool Regex::matches(std::string_view text) const {
    std::vector<regmatch_t> places(1);
    return compiled_->search(text, places);
}

std::optional<std::vector<Regex::Range>> Regex::search(std::string_view text) const {
    std::vector<regmatch_t> places(compiled_->program.re_nsub + 1);
    if (!compiled_->search(text, places)) return std::nullopt;
    std::vector<Range> ranges;
    for (const regmatch_t& place : places) {
        const bool matched = place.rm_so >= 0;
        ranges.push_back(matched ? Range{true, static_cast<std::size_t>(place.rm_so),
                                         static_cast<std::size_t>(place.rm_eo)}
                                 : Range{});
    }
    return ranges;
}

}  // namespace platform
