// Text forms of single payloads, shared by the query language and the values at the command line.
// Every reader takes the whole text or gives none, and reads back what the writer beside it wrote.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "util/big_num.h"

namespace tql::detail {

/// Decimal, or hexadecimal behind "0x"; no blanks, no plus sign, nothing out of range.
template <std::integral Number>
[[nodiscard]] std::optional<Number> read_integer(std::string_view text) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    if (hexadecimal && text.starts_with('-')) return std::nullopt;
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
    if (failure != std::errc() || stop != end) return std::nullopt;
    return number;
}

/// The shortest decimal form, "inf" and "-inf"; a NaN with its bits, as "nan(0x7ff8000000000000)".
[[nodiscard]] std::string real_text(double value);
/// Reads "nan" without bits as well.
[[nodiscard]] std::optional<double> read_real(std::string_view text);

/// Decimal up to 256 bits, beyond that hexadecimal behind "0x", which is as quick as the number is
/// long.
[[nodiscard]] std::string bignum_text(const BigNum& value);
/// Decimal digits up to a hundred, or hexadecimal ones.
[[nodiscard]] std::optional<BigNum> read_bignum(std::string_view text);

/// Four bytes in hexadecimal, high byte first, joined by colons.
[[nodiscard]] std::string gid_text(uint32_t gid);
/// Reads a plain number as well.
[[nodiscard]] std::optional<uint32_t> read_gid(std::string_view text);

/// Numbers joined by points; the empty text is the empty list.
[[nodiscard]] std::string oid_text(const std::vector<uint32_t>& oid);
[[nodiscard]] std::optional<std::vector<uint32_t>> read_oid(std::string_view text);

/// "2026-11-22 22:30:00" in UTC for the years 1 to 9999, else the seconds since 1970 in decimal.
[[nodiscard]] std::string date_text(int64_t seconds);
/// Reads plain seconds, and dates with "T" for the blank, without seconds, without time, with a
/// final "Z".
[[nodiscard]] std::optional<int64_t> read_date(std::string_view text);

/// Standard base64 with padding.
[[nodiscard]] std::string base64_text(const std::vector<uint8_t>& bytes);
/// Whole groups of four, padding only at the end, no stray bits.
[[nodiscard]] std::optional<std::vector<uint8_t>> read_base64(std::string_view text);

}  // namespace tql::detail
