#include "dbcache/pattern_language.h"

#include <fmt/format.h>

namespace dbcache {

namespace {

class PatternParser {
  public:
    explicit PatternParser(std::string_view text) : rest_(text) {}

    std::string run() {
        skip_blanks();
        if (rest_.empty()) return ": Empty pattern";
        if (!expression(0)) return fault_;
        if (!rest_.empty()) return ": Extra input";
        return {};
    }

  private:
    // Each reads one construct and the blanks behind it; false with fault_ set at the first fault.

    bool expression(int nesting) {
        if (!or_term(nesting)) return false;
        while (starts_with('o')) {
            if (!word("or") || !or_term(nesting)) return false;
        }
        return true;
    }

    bool or_term(int nesting) {
        if (!and_term(nesting)) return false;
        while (starts_with('a')) {
            if (!word("and") || !and_term(nesting)) return false;
        }
        return true;
    }

    bool and_term(int nesting) {
        if (nesting > kMaxPatternNesting) return fail(": Pattern nested too deeply");
        if (starts_with('\'')) return quoted();
        if (starts_with('n')) return word("not") && and_term(nesting + 1);
        if (!starts_with('(')) return fail(": Expected condition");
        take(1);
        if (!expression(nesting + 1)) return false;
        if (!starts_with(')')) return fail(": Unbalanced parentheses");
        take(1);
        return true;
    }

    bool quoted() {
        const size_t end = rest_.find('\'', 1);
        if (end == std::string_view::npos) return fail(": Unbalanced quotes");
        take(end + 1);
        return true;
    }

    /// A word is known by its first letter; the rest of it must follow.
    bool word(std::string_view expected) {
        if (!rest_.starts_with(expected)) return fail(fmt::format(": Expected '{}'", expected));
        take(expected.size());
        return true;
    }

    bool fail(std::string text) {
        fault_ = std::move(text);
        return false;
    }
    [[nodiscard]] bool starts_with(char c) const { return rest_.starts_with(c); }
    void take(size_t count) {
        rest_.remove_prefix(count);
        skip_blanks();
    }
    void skip_blanks() {
        while (!rest_.empty() && static_cast<unsigned char>(rest_.front()) <= ' ')
            rest_.remove_prefix(1);
    }

    std::string_view rest_;
    std::string fault_;
};

}  // namespace

std::string check_pattern(std::string_view text) {
    return PatternParser(text).run();
}

}  // namespace dbcache
