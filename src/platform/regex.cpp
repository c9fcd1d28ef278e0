#include "platform/regex.h"

#include <array>
#include <regex.h>

namespace platform {

struct Regex::Compiled {
    regex_t program{};
    explicit Compiled(const std::string& pattern) {
        if (pattern.find('\0') != std::string::npos)
            throw ERegex("Zero byte in regular expression");
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
