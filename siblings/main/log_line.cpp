#include "main/log_line.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>

namespace mainprocess {

namespace {

constexpr std::string_view kBegin = "tarmik-";
constexpr std::string_view kEnd = ".log";
constexpr size_t kTimeLength = std::string_view("2026-11-23T09:52:00.123+01:00").size();

std::string form_time(const platform::WallTime& now) {
    const auto seconds = static_cast<std::time_t>(now.seconds);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    const long offset_min = local.tm_gmtoff / 60;
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}:{:02}",
                       local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                       local.tm_min, local.tm_sec, now.microseconds / 1000,
                       offset_min < 0 ? '-' : '+', std::abs(offset_min) / 60,
                       std::abs(offset_min) % 60);
}

/// A text of digits and nothing else.
std::optional<uint32_t> read_number(std::string_view digits) {
    uint32_t number = 0;
    const auto [end, failure] =
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (failure != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return number;
}

std::optional<int64_t> parse_time_ms(std::string_view text) {
    constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:dd.ddd+dd:dd";
    for (size_t i = 0; i < kForm.size(); ++i) {
        const bool fits = kForm[i] == 'd'   ? text[i] >= '0' && text[i] <= '9'
                          : kForm[i] == '+' ? text[i] == '+' || text[i] == '-'
                                            : text[i] == kForm[i];
        if (!fits) return std::nullopt;
    }
    const auto number = [&](size_t at, size_t digits) {
        return static_cast<int>(*read_number(text.substr(at, digits)));
    };
    std::tm utc{};
    utc.tm_year = number(0, 4) - 1900;
    utc.tm_mon = number(5, 2) - 1;
    utc.tm_mday = number(8, 2);
    utc.tm_hour = number(11, 2);
    utc.tm_min = number(14, 2);
    utc.tm_sec = number(17, 2);
    const int offset_s = (number(24, 2) * 60 + number(27, 2)) * (text[23] == '-' ? -60 : 60);
    return (int64_t{::timegm(&utc)} - offset_s) * 1000 + number(20, 3);
}

/// The text in the next pair of brackets, which is taken off `rest`.
std::optional<std::string_view> take_bracketed(std::string_view& rest) {
    const size_t begin = rest.find_first_not_of(' ');
    if (begin == rest.npos || rest[begin] != '[') return std::nullopt;
    const size_t end = rest.find(']', begin);
    if (end == rest.npos) return std::nullopt;
    const std::string_view inside = rest.substr(begin + 1, end - begin - 1);
    rest.remove_prefix(end + 1);
    return inside;
}

}  // namespace

std::string form_log_line(const platform::WallTime& now, std::string_view process,
                          std::string_view text) {
    std::string line = fmt::format("{} {} ", form_time(now), process);
    line.reserve(line.size() + text.size());
    for (const char sign : text) {
        const auto code = static_cast<unsigned char>(sign);
        if (sign == '\n')
            line += "\\n";
        else if ((code < 0x20 && sign != '\t') || code == 0x7F)
            line += fmt::format("\\x{:02x}", code);
        else
            line += sign;
    }
    return line;
}

std::string form_log_text(std::string_view logger, logging::level_t level, std::string_view words) {
    return fmt::format("[{}] [{}] {}", logger, logging::level_text(level), words);
}

std::optional<LogLineHead> parse_log_line(std::string_view line) {
    if (line.size() <= kTimeLength || line[kTimeLength] != ' ') return std::nullopt;
    const std::optional<int64_t> time_ms = parse_time_ms(line);
    if (!time_ms) return std::nullopt;
    std::string_view rest = line.substr(kTimeLength + 1);
    rest.remove_prefix(std::min(rest.find(' '), rest.size()));
    LogLineHead head{.time_ms = *time_ms, .level = logging::level_t::info};
    if (!take_bracketed(rest)) return head;
    if (const auto text = take_bracketed(rest))
        if (const auto level = logging::find_level(*text)) head.level = *level;
    return head;
}

std::string log_file_name(std::string_view process, uint32_t age) {
    std::string name = fmt::format("{}{}{}", kBegin, process, kEnd);
    if (age > 0) name += fmt::format(".{}", age);
    return name;
}

std::optional<LogFileName> parse_log_file_name(std::string_view name) {
    const size_t end = name.find(kEnd);
    if (!name.starts_with(kBegin) || end == name.npos) return std::nullopt;
    LogFileName parsed{.process = std::string(name.substr(0, end).substr(kBegin.size())), .age = 0};
    const std::string_view behind = name.substr(end + kEnd.size());
    if (behind.starts_with('.')) parsed.age = read_number(behind.substr(1)).value_or(0);
    if (log_file_name(parsed.process, parsed.age) != name) return std::nullopt;
    const auto is_sign = [](char sign) {
        return (sign >= 'a' && sign <= 'z') || (sign >= '0' && sign <= '9');
    };
    if (parsed.process.empty() ||
        !std::all_of(parsed.process.begin(), parsed.process.end(), is_sign))
        return std::nullopt;
    return parsed;
}

}  // namespace mainprocess
