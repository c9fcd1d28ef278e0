#include "tql/detail/scalar_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <fmt/format.h>

namespace tql::detail {

namespace {

constexpr size_t kDecimalBytes = 32;
constexpr size_t kDecimalDigits = 100;

std::optional<uint8_t> hex_digit(char c) {
    if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
    return std::nullopt;
}

std::optional<BigNum> read_bignum_hex(std::string_view digits) {
    if (digits.empty()) return std::nullopt;
    std::vector<uint8_t> bytes((digits.size() + 1) / 2);
    for (size_t i = 0; i < digits.size(); ++i) {
        const auto digit = hex_digit(digits[digits.size() - 1 - i]);
        if (!digit) return std::nullopt;
        uint8_t& byte = bytes[bytes.size() - 1 - i / 2];
        byte = static_cast<uint8_t>(byte | *digit << (i % 2 * 4));
    }
    return BigNum(std::span<const uint8_t>(bytes));
}

std::optional<BigNum> read_bignum_decimal(std::string_view digits) {
    if (digits.empty() || digits.size() > kDecimalDigits) return std::nullopt;
    std::vector<uint8_t> bytes;  // least significant first while digits are taken in
    for (const char c : digits) {
        if (c < '0' || c > '9') return std::nullopt;
        unsigned carry = static_cast<unsigned>(c - '0');
        for (uint8_t& byte : bytes) {
            carry += byte * 10U;
            byte = static_cast<uint8_t>(carry);
            carry >>= 8;
        }
        if (carry != 0) bytes.push_back(static_cast<uint8_t>(carry));
    }
    std::ranges::reverse(bytes);
    return BigNum(std::span<const uint8_t>(bytes));
}

// Takes `width` digits and, unless it is 0, the separator behind them.
std::optional<int> take_digits(std::string_view& text, size_t width, char separator) {
    if (text.size() < width) return std::nullopt;
    int number = 0;
    for (const char c : text.substr(0, width)) {
        if (c < '0' || c > '9') return std::nullopt;
        number = number * 10 + (c - '0');
    }
    text.remove_prefix(width);
    if (separator != 0) {
        if (!text.starts_with(separator)) return std::nullopt;
        text.remove_prefix(1);
    }
    return number;
}

// "HH:MM" or "HH:MM:SS" as seconds of the day.
std::optional<int64_t> read_time_of_day(std::string_view text) {
    const auto hour = take_digits(text, 2, ':');
    const auto minute = hour ? take_digits(text, 2, 0) : std::nullopt;
    if (!minute || *hour > 23 || *minute > 59) return std::nullopt;
    if (text.empty()) return *hour * 3600 + *minute * 60;
    text.remove_prefix(text.starts_with(':') ? 1 : 0);
    const auto second = take_digits(text, 2, 0);
    if (!second || *second > 59 || !text.empty()) return std::nullopt;
    return *hour * 3600 + *minute * 60 + *second;
}

constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> kBase64Values = [] {
    std::array<int8_t, 256> values{};
    values.fill(-1);
    for (size_t i = 0; i < kBase64.size(); ++i)
        values[static_cast<uint8_t>(kBase64[i])] = static_cast<int8_t>(i);
    return values;
}();

}  // namespace

std::string real_text(double value) {
    if (std::isnan(value)) return fmt::format("nan({:#x})", std::bit_cast<uint64_t>(value));
    return fmt::format("{}", value);
}

std::optional<double> read_real(std::string_view text) {
    if (text.starts_with("nan(") && text.ends_with(")")) {
        const auto bits = read_integer<uint64_t>(text.substr(4, text.size() - 5));
        if (!bits || !std::isnan(std::bit_cast<double>(*bits))) return std::nullopt;
        return std::bit_cast<double>(*bits);
    }
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, value);
    if (failure != std::errc() || stop != end || text.find('(') != text.npos) return std::nullopt;
    return value;
}

std::string bignum_text(const BigNum& value) {
    if (value.byte_length() <= kDecimalBytes) return value.to_decimal();
    std::vector<uint8_t> bytes(value.byte_length());
    value.bn_get_data(bytes);
    return fmt::format("0x{:02x}", fmt::join(bytes, ""));
}

std::optional<BigNum> read_bignum(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) return read_bignum_hex(text.substr(2));
    return read_bignum_decimal(text);
}

std::string gid_text(uint32_t gid) {
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}", gid >> 24, gid >> 16 & 0xff, gid >> 8 & 0xff,
                       gid & 0xff);
}

std::optional<uint32_t> read_gid(std::string_view text) {
    if (text.find(':') == text.npos) return read_integer<uint32_t>(text);
    if (text.size() != 11) return std::nullopt;
    uint32_t gid = 0;
    for (size_t i = 0; i < 4; ++i) {
        const auto high = hex_digit(text[i * 3]);
        const auto low = hex_digit(text[i * 3 + 1]);
        if (!high || !low || (i < 3 && text[i * 3 + 2] != ':')) return std::nullopt;
        gid = gid << 8 | static_cast<uint32_t>(*high << 4 | *low);
    }
    return gid;
}

std::string oid_text(const std::vector<uint32_t>& oid) {
    return fmt::format("{}", fmt::join(oid, "."));
}

std::optional<std::vector<uint32_t>> read_oid(std::string_view text) {
    std::vector<uint32_t> oid;
    if (text.empty()) return oid;
    while (true) {
        const size_t point = text.find('.');
        const std::string_view piece = text.substr(0, point);
        const auto number = piece.starts_with("0x") ? std::nullopt : read_integer<uint32_t>(piece);
        if (!number) return std::nullopt;
        oid.push_back(*number);
        if (point == text.npos) return oid;
        text.remove_prefix(point + 1);
    }
}

std::string date_text(int64_t seconds) {
    using namespace std::chrono;
    constexpr int64_t kYear1 = -62135596800;
    constexpr int64_t kYear9999End = 253402300799;
    if (seconds < kYear1 || seconds > kYear9999End) return fmt::format("{}", seconds);
    const sys_seconds moment{std::chrono::seconds(seconds)};
    const auto day = floor<days>(moment);
    const year_month_day date(day);
    const hh_mm_ss time(moment - day);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       time.hours().count(), time.minutes().count(), time.seconds().count());
}

std::optional<int64_t> read_date(std::string_view text) {
    using namespace std::chrono;
    if (const auto seconds = read_integer<int64_t>(text)) return seconds;
    const auto y = take_digits(text, 4, '-');
    const auto m = y ? take_digits(text, 2, '-') : std::nullopt;
    const auto d = m ? take_digits(text, 2, 0) : std::nullopt;
    if (!d) return std::nullopt;
    const year_month_day date{year(*y), month(static_cast<unsigned>(*m)),
                              std::chrono::day(static_cast<unsigned>(*d))};
    if (!date.ok()) return std::nullopt;
    const int64_t midnight = duration_cast<seconds>(sys_days(date).time_since_epoch()).count();
    if (text.ends_with('Z')) text.remove_suffix(1);
    if (text.empty()) return midnight;
    if (text[0] != ' ' && text[0] != 'T') return std::nullopt;
    const auto time = read_time_of_day(text.substr(1));
    if (!time) return std::nullopt;
    return midnight + *time;
}

std::string base64_text(const std::vector<uint8_t>& bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t given = std::min<size_t>(3, bytes.size() - i);
        uint32_t group = static_cast<uint32_t>(bytes[i]) << 16;
        if (given > 1) group |= static_cast<uint32_t>(bytes[i + 1]) << 8;
        if (given > 2) group |= bytes[i + 2];
        for (size_t digit = 0; digit < 4; ++digit)
            text += digit <= given ? kBase64[group >> (18 - 6 * digit) & 63] : '=';
    }
    return text;
}

std::optional<std::vector<uint8_t>> read_base64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::vector<uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        const std::string_view quad = text.substr(i, 4);
        const bool last = i + 4 == text.size();
        const size_t padding = !last ? 0 : quad.ends_with("==") ? 2 : quad.ends_with("=") ? 1 : 0;
        uint32_t group = 0;
        for (size_t digit = 0; digit < 4; ++digit) {
            const int value =
                digit >= 4 - padding ? 0 : kBase64Values[static_cast<uint8_t>(quad[digit])];
            if (value < 0) return std::nullopt;
            group = group << 6 | static_cast<uint32_t>(value);
        }
        if ((group & ((1U << padding * 8) - 1)) != 0) return std::nullopt;
        for (size_t byte = 0; byte < 3 - padding; ++byte)
            bytes.push_back(static_cast<uint8_t>(group >> (16 - 8 * byte)));
    }
    return bytes;
}

}  // namespace tql::detail
