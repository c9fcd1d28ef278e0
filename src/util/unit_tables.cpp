#include "util/unit_tables.h"

#include <array>
#include <fmt/format.h>

#include "util/text.h"

namespace units {

namespace {

using Texts = std::array<std::string_view, 3>;

struct PrefixRow {
    std::string_view label;
    Texts texts;
    size_t text_count;
    int power_of_ten;
    uint8_t down;
    uint8_t up;
};
struct UnitRow {
    std::string_view label;
    Texts texts;
    size_t text_count;
};
struct FactorRow {
    uint8_t from;
    uint8_t to;
    double factor;
};

// clang-format off
constexpr PrefixRow kPrefixes[] = {
    {"",   {" "},         1,   0, 7, 7},
    {"p",  {"p"},         1, -12, kNoPrefix, 2},
    {"n",  {"n"},         1,  -9, 1, 3},
    {"u",  {"u"},         1,  -6, 2, 4},
    {"m",  {"m"},         1,  -3, 3, 7},
    {"c",  {"0.01", "c"}, 2,  -2, 4, 7},
    {"d",  {"d", "0.1"},  2,  -1, 4, 7},
    {"1",  {"1"},         1,   0, 4, 9},
    {"h",  {"h"},         1,   2, 7, 9},
    {"k",  {"k"},         1,   3, 7, 10},
    {"M",  {"M"},         1,   6, 9, 11},
    {"G",  {"G"},         1,   9, 10, 12},
    {"T",  {"T"},         1,  12, 11, 13},
    {"P",  {"P"},         1,  15, 12, kNoPrefix},
    {"10", {"10"},        1,   1, 7, 9},
};
static_assert(std::size(kPrefixes) == kPrefixCount);

constexpr UnitRow kUnits[] = {
    {"",     {""},                      1},
    {"s",    {"s"},                     1},
    {"min",  {"min"},                   1},
    {"h",    {"h", "hour"},             2},
    {"day",  {"day"},                   1},
    {"week", {"week"},                  1},
    {"mon",  {"mon", "month"},          2},
    {"year", {"year"},                  1},
    {"b",    {"b", "bit"},              2},
    {"B",    {"B", "byte"},             2},
    {"V",    {"V", "Volt", "0.00V"},    3},
    {"A",    {"A", "Amp"},              2},
    {"W",    {"W", "Watt"},             2},
    {"Hz",   {"Hz"},                    1},
    {"C",    {"C"},                     1},
    {"F",    {"F"},                     1},
    {"K",    {"K"},                     1},
    {"m",    {"m"},                     1},
    {"\"",   {"\"", "inch"},            2},
    {"%",    {"%"},                     1},
    {"%",    {"1%", "pct"},             2},
    {"rpm",  {"RPM", "rpm", "1.00RPM"}, 3},
};
static_assert(std::size(kUnits) == kUnitCount);

/// Seconds; of kSecond to kYear.
constexpr double kLengths[] = {0, 1, 60, 3600, 86400, 604800, 2678400, 31536000};

/// What the lengths alone don't give. A month has four weeks here and a year twelve months.
constexpr FactorRow kFactors[] = {
    {kWeek, kMonth, 0.25},
    {kMonth, kWeek, 4},
    {kWeek, kYear, 1.0 / 53},
    {kYear, kWeek, 53},
    {kMonth, kYear, 1.0 / 12},
    {kYear, kMonth, 12},
    {kBit, kByte, 0.125},
    {kByte, kBit, 8},
    {kMetre, kInch, 39.37007874},
    {kInch, kMetre, 0.0254},
    {kPercent, kShownPercent, 0.01},
    {kShownPercent, kPercent, 100},
};
// clang-format on

constexpr bool is_time(uint8_t unit) {
    return unit >= kSecond && unit <= kYear;
}
constexpr bool is_temperature(uint8_t unit) {
    return unit >= kCelsius && unit <= kKelvin;
}

}  // namespace

Prefix prefix(uint8_t number) {
    const PrefixRow& row = kPrefixes[number < kPrefixCount ? number : 0];
    Prefix found{row.label, {row.texts.data(), row.text_count}, row.power_of_ten, row.down, row.up};
    if (number >= kPrefixCount) found.down = found.up = kNoPrefix;
    return found;
}

Unit unit(uint8_t number) {
    const UnitRow& row = kUnits[number < kUnitCount ? number : 0];
    return {row.label, {row.texts.data(), row.text_count}};
}

std::optional<double> conversion_factor(uint8_t from, uint8_t to) {
    if (from == to) return std::nullopt;
    for (const FactorRow& row : kFactors)
        if (row.from == from && row.to == to) return row.factor;
    if (is_time(from) && is_time(to)) return kLengths[from] / kLengths[to];
    if (is_temperature(from) && is_temperature(to)) return 0;
    return std::nullopt;
}

double convert_temperature(double value, uint8_t from, uint8_t to) {
    if (!is_temperature(from))
        throw error::EParseError(fmt::format("Unknown in temperature type: {}", from));
    if (!is_temperature(to))
        throw error::EParseError(fmt::format("Unknown out temperature type: {}", to));
    if (from == to) return value;
    const double celsius = from == kFahrenheit ? (value - 32) / 1.8
                           : from == kKelvin   ? value - 273.15
                                               : value;
    if (to == kFahrenheit) return celsius * 1.8 + 32;
    return to == kKelvin ? celsius + 273.15 : celsius;
}

}  // namespace units
