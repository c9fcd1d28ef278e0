#include "tarmik/words.h"

#include <algorithm>
#include <charconv>

#include "tarmik/api_client.h"
#include "tql/names.h"

namespace cli {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

bool is_blank(char c) {
    return kBlanks.find(c) != kBlanks.npos;
}

bool is_name_sign(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/// Reads one word from `at` on, which stands at its first sign.
std::string read_word(std::string_view line, size_t& at) {
    std::string word;
    char quote = 0;
    for (; at < line.size(); ++at) {
        const char c = line[at];
        if (quote == 0 && is_blank(c)) break;
        if (c == '\\' && quote != '\'' && at + 1 < line.size())
            word += line[++at];
        else if (c == quote)
            quote = 0;
        else if (quote == 0 && (c == '"' || c == '\''))
            quote = c;
        else
            word += c;
    }
    if (quote != 0)
        throw CommandError(kUsage, std::string("There is no end to the quotation mark ") + quote);
    return word;
}

void skip_blanks(std::string_view line, size_t& at) {
    while (at < line.size() && is_blank(line[at])) ++at;
}

/// The rest of a select behind its options, without quotation marks around the whole.
std::string pattern_word(std::string_view rest) {
    const size_t last = rest.find_last_not_of(kBlanks);
    rest = rest.substr(0, last == rest.npos ? 0 : last + 1);
    if (rest.size() >= 2 && rest.front() == '\'' && rest.back() == '\'')
        rest = rest.substr(1, rest.size() - 2);
    return std::string(rest);
}

void add_names(std::string_view prefix, bool only_properties, std::vector<std::string>& to) {
    if (!only_properties)
        for (const std::string_view name : tql::class_names())
            if (name.size() > 1 && name.starts_with(prefix)) to.emplace_back(name);
    for (const tql::property_row_t& row : tql::property_rows())
        if (row.name.starts_with(prefix)) to.emplace_back(row.name);
}

}  // namespace

std::optional<uint64_t> parse_size(std::string_view text) {
    unsigned shift = 0;
    if (!text.empty()) {
        const std::string_view units = "KMG";
        const size_t unit = units.find(text.back());
        if (unit != units.npos) {
            shift = 10 * (static_cast<unsigned>(unit) + 1);
            text.remove_suffix(1);
        }
    }
    uint64_t number = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (number > (UINT64_MAX >> shift)) return std::nullopt;
    return number << shift;
}

std::vector<std::string> split_words(std::string_view line) {
    std::vector<std::string> words;
    size_t at = 0;
    bool expects_value = false;
    for (skip_blanks(line, at); at < line.size(); skip_blanks(line, at)) {
        const bool is_option = line[at] == '-';
        if (!words.empty() && words[0] == "select" && !is_option && !expects_value) {
            words.push_back(pattern_word(line.substr(at)));
            return words;
        }
        words.push_back(read_word(line, at));
        expects_value = is_option && words.back().find('=') == std::string::npos;
    }
    return words;
}

Completion complete(std::string_view line, const std::vector<std::string>& commands) {
    Completion found;
    found.word_begin = line.size();
    while (found.word_begin > 0 && is_name_sign(line[found.word_begin - 1])) --found.word_begin;
    const std::string_view prefix = line.substr(found.word_begin);
    const std::string_view before = line.substr(0, found.word_begin);
    if (before.find_first_not_of(kBlanks) == before.npos) {
        for (const std::string& command : commands)
            if (command.starts_with(prefix)) found.candidates.push_back(command);
        return found;
    }
    const size_t opened = before.find_last_of("[{");
    const size_t closed = before.find_last_of("]}");
    const bool inside = opened != before.npos && (closed == before.npos || closed < opened);
    add_names(prefix, inside, found.candidates);
    std::sort(found.candidates.begin(), found.candidates.end());
    return found;
}

std::string common_prefix(const std::vector<std::string>& candidates) {
    if (candidates.empty()) return {};
    std::string prefix = candidates.front();
    for (const std::string& other : candidates) {
        const auto differ = std::mismatch(prefix.begin(), prefix.end(), other.begin(), other.end());
        prefix.erase(differ.first, prefix.end());
    }
    return prefix;
}

}  // namespace cli
