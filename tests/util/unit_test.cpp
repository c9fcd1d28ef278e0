#include <cmath>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

#include "support/rng.h"
#include "util/text.h"
#include "util/unit_expression.h"
#include "util/unit_tables.h"

namespace {

using Blob = std::vector<uint8_t>;
constexpr auto kBrief = UnitExpression::form_t::brief;
constexpr auto kFull = UnitExpression::form_t::full;

std::string hex(const Blob& blob) {
    std::string text;
    for (const uint8_t byte : blob) text += fmt::format("{}{:02x}", text.empty() ? "" : " ", byte);
    return text;
}

/// What reading `blob` fails with; "no error" if it doesn't.
std::string fault(const Blob& blob) {
    try {
        static_cast<void>(UnitExpression::from_blob(blob));
    } catch (const error::EParseError& e) {
        return e.text();
    }
    return "no error";
}

/// An expression whose multiples are of 1000 or 1024, whatever its unit is.
UnitExpression expression(const char* text, bool binary) {
    UnitExpression made{std::string_view(text)};
    made.set_binary(binary);
    return made;
}

TEST(UnitText, GoesToItsBlobAndBack) {
    const struct {
        const char* text;
        const char* blob;
        const char* brief;  // with and without plain ones
        const char* full;
    } rows[] = {
        {"", "51 01", "", ""},
        {"kB/s", "51 01 11 01 11 09 01 09 21 01 21 02", "KiB/s", "kB/s"},
        {"kbit", "51 01 11 08 01 09 21 01", "Kib", "kb"},
        {"ms", "51 01 11 01 01 04 21 01", "ms", "ms"},
        {"mm", "51 01 11 11 01 04 21 01", "mm", "mm"},
        {"cm", "51 01 11 11 01 05 21 01", "cm", "0.01m"},
        {"m", "51 01 11 11", "m", "m"},
        {"h", "51 01 11 03", "h", "h"},
        {"hour", "51 01 11 03", "h", "h"},
        {"min", "51 01 11 02", "min", "min"},
        {"month", "51 01 11 06", "mon", "mon"},
        {"0.01", "51 01 01 05", "c", "0.01"},
        {"0.00V", "51 01 11 0a", "V", "V"},
        {"RPM", "51 01 11 15", "rpm", "RPM"},
        {"inch", "51 01 11 12", "\"", "\""},
        {"%", "51 01 11 13", "%", "%"},
        {"pct", "51 01 11 14", "%", "1%"},
        {"10%", "51 01 11 13 01 0e 21 01", "10%", "10%"},
        {"1", "51 01 31 31", "1", "1"},
        {"kW*h", "51 01 11 03 11 0c 21 01 01 09 21 01", "kW*h", "kW*h"},
        {"a/b c", "51 01 01 05 11 08 21 01 31 61 21 02", "a/b/c", "a/b/0.01"},
        {"V*A/s*W", "51 01 11 01 11 0c 11 0b 21 01 11 0a 21 01 21 02", "V*A*W/s", "V*A*W/s"},
        {"* /", "51 01 33 2a 20 2f", "* /", "* /"},
        {"abcdefghijklmnopqrst", "51 01 3f 61 62 63 64 65 66 67 68 69 6a 6b 6c 6d 6e 6f",
         "abcdefghijklmno", "abcdefghijklmno"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const UnitExpression made{std::string_view(row.text)};
        EXPECT_EQ(hex(made.to_blob()), row.blob);
        EXPECT_EQ(made.getLabel(kBrief, true), row.brief);
        EXPECT_EQ(made.getLabel(kFull, false), row.full);
        EXPECT_EQ(hex(UnitExpression::from_blob(made.to_blob()).to_blob()), row.blob);
        const UnitExpression back = UnitExpression::from_blob(made.to_blob());
        EXPECT_EQ(back.binary(), made.binary());
        EXPECT_EQ(back.numerator(), made.numerator());
        EXPECT_EQ(back.denominator(), made.denominator());
    }
}

TEST(UnitText, WithoutNumeratorGetsAOne) {
    const UnitExpression made(std::string_view("/s"));
    EXPECT_TRUE(made.numerator().empty());
    EXPECT_EQ(made.getLabel(kBrief, true), "/s");
    EXPECT_EQ(made.getLabel(kBrief, false), "1/s");
    EXPECT_EQ(hex(made.to_blob()), "51 01 11 01 01 07 21 02");
    const UnitExpression back = UnitExpression::from_blob(made.to_blob());
    ASSERT_EQ(back.numerator().size(), 1U);
    EXPECT_EQ(back.numerator()[0], UnitEntry::prefix(units::kOne));
    EXPECT_EQ(back.getLabel(kBrief, true), "/s");
    EXPECT_EQ(back.getLabel(kBrief, false), "1/s");
}

TEST(UnitBlob, OfOtherVersions) {
    const UnitExpression old = UnitExpression::from_blob(Blob{0x11, 0x09});
    EXPECT_EQ(old.version(), 0);
    EXPECT_TRUE(old.binary());
    EXPECT_EQ(hex(old.to_blob()), "51 01 11 09");
    for (const Blob& newer : {Blob{0x51, 2}, Blob{0x51, 2, 0xFF, 0x40, 0}, Blob{0x53, 0xFF, 1}}) {
        const UnitExpression kept = UnitExpression::from_blob(newer);
        EXPECT_EQ(kept.version(), newer[1]);
        EXPECT_TRUE(kept.numerator().empty());
        EXPECT_EQ(kept.to_blob(), newer);
    }
    EXPECT_EQ(UnitExpression::from_blob({}).to_blob(), (Blob{0x51, 1}));
}

TEST(UnitBlob, NamesWhatIsWrongWithIt) {
    const struct {
        Blob blob;
        const char* fault;
    } rows[] = {
        {{0x51}, "entryFromBlob met eod"},
        {{0x51, 1, 0x11}, "entryFromBlob met eod"},
        {{0x51, 1, 0x3F, 0x41}, "entryFromBlob met eod"},
        {{0x51, 1, 0x12, 1, 1}, "Wrong length for entry when decoding blob"},
        {{0x51, 1, 0x20}, "Wrong length for entry when decoding blob"},
        {{0x51, 1, 0x40}, "Unexpected unit type in entryFromBlob: 64"},
        {{0x51, 1, 0x51, 1}, "Unexpected unit type in entryFromBlob: 81"},
        {{0x51, 1, 0x60}, "Met unexpected unit tag: 96"},
        {{0x51, 1, 0x11, 1, 0x11, 1, 0x21, 3}, "Unexpected operator: 3"},
        {{0x51, 1, 0x11, 1, 0x21, 1}, "Error parsing blob, out of data"},
        {{0x51, 1, 0x11, 1, 0x11, 1}, "Error parsing blob, extra input"},
        {{0x51, 1, 0x11, 200}, "no error"},
        {{0x51, 1, 0x30}, "no error"},
    };
    for (const auto& row : rows) EXPECT_EQ(fault(row.blob), row.fault) << hex(row.blob);
    size_t behind = 3;
    EXPECT_THROW(static_cast<void>(entryFromBlob(Blob{0x11, 1}, behind)), error::EParseError);
    // Numbers beyond the tables read as nothing.
    EXPECT_EQ(UnitExpression::from_blob(Blob{0x51, 1, 0x11, 200}).getLabel(kBrief, true), "");
    // Operators nested as deep as a blob is long.
    Blob deep{0x51, 1};
    for (int i = 0; i < 200'000; ++i) deep.insert(deep.end(), {0x21, 2});
    EXPECT_EQ(fault(deep), "Error parsing blob, out of data");
}

TEST(UnitBlob, OfAnyBytesIsReadOrRefused) {
    support::Rng rng(1);
    int read = 0;
    for (int i = 0; i < 50'000; ++i) {
        Blob blob{0x51, 1};
        for (uint64_t n = rng.below(8); n > 0; --n) {
            const uint64_t kind = rng.below(10);
            if (kind < 9) blob.push_back(kind < 3 ? 0x21 : kind < 6 ? 0x11 : 0x01);
            blob.push_back(static_cast<uint8_t>(rng.below(rng.chance(80) ? 24 : 256)));
        }
        SCOPED_TRACE(hex(blob));
        try {
            const UnitExpression made = UnitExpression::from_blob(blob);
            ++read;
            const UnitExpression again = UnitExpression::from_blob(made.to_blob());
            EXPECT_EQ(again.to_blob(), made.to_blob());
            static_cast<void>(format_units(made, 12345.678, again));
            static_cast<void>(format_units(UnitExpression(uint8_t{units::kVolt}), 1e-7, made));
        } catch (const error::EParseError&) {
        }
    }
    EXPECT_GT(read, 1000);
}

TEST(UnitExpression, CancelsAndTellsRates) {
    using list_t = UnitExpression::list_t;
    UnitExpression speed(std::string_view("m/s"));
    speed.multiply(units::kSecond, list_t::numerator);
    EXPECT_EQ(speed.getLabel(kBrief, true), "m");
    speed.multiply(units::kHour, list_t::denominator);
    EXPECT_EQ(speed.getLabel(kBrief, true), "m/h");
    EXPECT_EQ(speed.with_prefix(9).getLabel(kBrief, true), "km/h");
    EXPECT_EQ(UnitExpression(std::string_view("V/kW")).with_prefix(9).getLabel(kBrief, true),
              "V/W");
    EXPECT_TRUE(speed.denominator_has(units::kSecond));
    EXPECT_TRUE(speed.denominator_has(units::kHour));
    EXPECT_FALSE(UnitExpression(std::string_view("s")).denominator_has(units::kSecond));
    EXPECT_FALSE(UnitExpression(std::string_view("B/V")).denominator_has(units::kSecond));
}

TEST(UnitConversion, GivesTheValueInTheTargetsUnit) {
    constexpr bool kAuto = true, kPlain = false;
    const struct {
        double value;
        const char* from;
        const char* to;
        bool autoscale;
        double result;
        const char* label;
    } rows[] = {
        {90, "s", "min", kPlain, 1.5, "min"},
        {8, "week", "mon", kPlain, 2, "mon"},
        {2, "mon", "week", kPlain, 8, "week"},
        {2, "year", "week", kPlain, 106, "week"},
        {53, "week", "year", kPlain, 1, "year"},
        {24, "mon", "year", kPlain, 2, "year"},
        {62, "day", "mon", kPlain, 2, "mon"},
        {1, "year", "day", kPlain, 365, "day"},
        {16, "b", "B", kPlain, 2, "B"},
        {2, "m", "inch", kPlain, 78.74015748, "\""},
        {50, "%", "pct", kPlain, 0.5, "%"},
        {100, "C", "F", kPlain, 212, "F"},
        {212, "F", "C", kPlain, 100, "C"},
        {32, "F", "K", kPlain, 273.15, "K"},
        {273.15, "K", "F", kPlain, 32, "F"},
        {0, "K", "C", kPlain, -273.15, "C"},
        {1, "C", "K", kPlain, 274.15, "K"},
        // Below the line a step goes the other way.
        {120, "B/min", "B/s", kPlain, 2, "B/s"},
        {100, "B/ms", "B/s", kPlain, 100'000, "B/s"},
        {7, "V/C", "V/F", kPlain, (7 - 32) / 1.8, "V/F"},
        {2, "kB/s", "B/s", kPlain, 2000, "B/s"},
        {5, "", "k", kPlain, 0.005, "k"},
        {5, "V", "s", kPlain, 5, "V"},
        {5, "V", "ks", kPlain, 0.005, "kV"},
        {90, "s", "s", kPlain, 90, "s"},
        // Two prefixes in one list: as it was.
        {3, "V", "k*M", kPlain, 3, "V"},
        {3, "V/A", "V/k*V/M", kAuto, 3, "V/A"},
        {3, "k*M", "V", kPlain, 3, "k*M"},
        // The prefix that suits.
        {1500, "B", "B", kAuto, 1.5, "kB"},
        {999, "B", "B", kAuto, 999, "B"},
        {1000, "B", "B", kAuto, 1, "kB"},
        {3e9, "B", "B", kAuto, 3, "GB"},
        {2500, "kB", "B", kAuto, 2.5, "MB"},
        {5e18, "B", "B", kAuto, 5000, "PB"},
        {0.5, "B", "B", kAuto, 0.5, "B"},
        {-5000, "B", "B", kAuto, -5000, "B"},
        {0, "B", "kB", kAuto, 0, "kB"},
        {0.002, "s", "s", kAuto, 2, "ms"},
        {2000, "s", "s", kAuto, 2000, "s"},
        {0.0005, "V", "V", kAuto, 500, "uV"},
        {1e-15, "V", "V", kAuto, 0.001, "pV"},
        {500, "mV", "kV", kAuto, 500, "mV"},
        {1500, "min", "min", kAuto, 1500, "min"},
        {0.5, "C", "C", kAuto, 0.5, "C"},
        {5000, "rpm", "rpm", kAuto, 5000, "rpm"},
        {5000, "x", "x", kAuto, 5000, "x"},
        {5000, "B", "cB", kAuto, 5, "kB"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(fmt::format("{} {} in {}", row.value, row.from, row.to));
        const UnitValue made = convert_units(expression(row.from, false), row.value,
                                             expression(row.to, false), row.autoscale);
        EXPECT_DOUBLE_EQ(made.value, row.result);
        EXPECT_EQ(made.unit.getLabel(kBrief, true), row.label);
    }
}

TEST(UnitConversion, CountsIn1024WhereASideIsBinary) {
    const struct {
        double value;
        const char* from;
        bool from_binary;
        const char* to;
        bool to_binary;
        bool autoscale;
        double result;
        const char* label;
    } rows[] = {
        {1500, "B", true, "B", true, true, 1500.0 / 1024, "KiB"},
        {1000, "B", true, "B", true, true, 1000, "B"},
        {1024, "B", true, "B", true, true, 1, "KiB"},
        {3 * 1048576.0, "B", true, "B", true, true, 3, "MiB"},
        {1500, "B", true, "B", false, true, 1.5, "kB"},
        {2, "kB", true, "B", true, false, 2048, "B"},
        {2, "kB", true, "kB", false, false, 2.048, "kB"},
        {2048, "B/ms", false, "kB/s", true, false, 2000, "KiB/s"},
        // Prefixes that are no power of 1024 count as they always do.
        {2, "hB", true, "B", true, false, 200, "B"},
        {200, "B", true, "hB", true, false, 2, "HiB"},
        {2000, "mB", true, "B", true, false, 2, "B"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(fmt::format("{} {} in {}", row.value, row.from, row.to));
        const UnitValue made = convert_units(expression(row.from, row.from_binary), row.value,
                                             expression(row.to, row.to_binary), row.autoscale);
        EXPECT_DOUBLE_EQ(made.value, row.result);
        EXPECT_EQ(made.unit.getLabel(kBrief, true), row.label);
    }
}

/// Rounding next to a step must not send the choice of a prefix up and down for ever.
TEST(UnitConversion, EndsNextToEveryStep) {
    for (const char* unit : {"V", "B", "Hz", "kV", "PV", "uV", "hB"})
        for (const bool binary : {false, true})
            for (int power = -15; power <= 18; ++power) {
                double value = binary ? std::pow(1024, power / 3.0) : std::pow(10, power);
                for (int i = 0; i < 3; ++i) value = std::nextafter(value, 0);
                for (int i = 0; i < 7; ++i) {
                    const UnitExpression made = expression(unit, binary);
                    const UnitValue shown = convert_units(made, value, made, true);
                    EXPECT_GT(shown.value, 0);
                    value = std::nextafter(value, HUGE_VAL);
                }
            }
}

TEST(UnitTables, KnowThreeTemperatures) {
    EXPECT_EQ(units::convert_temperature(5, units::kKelvin, units::kKelvin), 5);
    const auto text = [](uint8_t from, uint8_t to) -> std::string {
        try {
            static_cast<void>(units::convert_temperature(1, from, to));
        } catch (const error::EParseError& e) {
            return e.text();
        }
        return {};
    };
    EXPECT_EQ(text(1, units::kKelvin), "Unknown in temperature type: 1");
    EXPECT_EQ(text(units::kKelvin, 17), "Unknown out temperature type: 17");
}

TEST(UnitFormat, SuitsPeople) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const struct {
        double value;
        const char* unit;
        const char* display;
        const char* text;
    } rows[] = {
        {std::nan(""), "V", "V", "nan"},
        {kInfinity, "V", "V", "inf"},
        {-kInfinity, "s", "s", "-inf"},
        {1e308, "day", "s", "inf"},
        // Durations.
        {60.9, "s", "s", "60.9 s"},
        {61, "s", "s", "1m 1s"},
        {90.9, "s", "s", "1m 30s"},
        {3600, "s", "s", "60m 0s"},
        {3661, "s", "s", "1h 1m"},
        {86400, "s", "s", "24h 0m"},
        {90061, "s", "s", "1 days, 1h 1m"},
        {2147483647, "s", "s", "24855 days, 3h 14m"},
        {2147483648, "s", "s", "2147483648 s"},
        {3e9, "s", "s", "3000000000 s"},
        {90, "s", "min", "1.50 min"},
        {90, "min", "s", "5400 s"},
        {0.002, "s", "s", "2.00 ms"},
        // Digits by size.
        {0, "B", "B", "0 B"},
        {0.005, "rpm", "rpm", "0.00500 rpm"},
        {0.05, "rpm", "rpm", "0.0500 rpm"},
        {0.5, "rpm", "rpm", "0.500 rpm"},
        {5, "rpm", "rpm", "5.00 rpm"},
        {50, "rpm", "rpm", "50.0 rpm"},
        {500.5, "rpm", "rpm", "500 rpm"},
        {-5, "V", "V", "-5.00000 V"},
        {5, "", "", "5.00 "},
        // The prefix of the display unit doesn't count.
        {1500, "B", "MB", "1.50 kB"},
        {12'500'000, "b/s", "b/s", "12.5 Mb/s"},
        {0.05, "m", "cm", "50.0 mm"},
        {1500, "min", "min", "1500 min"},
        // One per cent is a hundredth of what it is shown in.
        {50, "%", "%", "0.500 %"},
        {150, "%", "%", "1.50 %"},
        {50, "%", "pct", "0.500 %"},
        {50, "pct", "%", "50.0 %"},
        // Nothing leads from volts to seconds.
        {5, "V", "s", "5.00 V"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(
            format_units(expression(row.unit, false), row.value, expression(row.display, false)),
            row.text)
            << row.value << ' ' << row.unit << " in " << row.display;
    EXPECT_EQ(format_units(expression("B", true), 1500, expression("B", true)), "1.46 KiB");
    EXPECT_EQ(format_units(expression("V", false), 1e300, expression("V", false)).size(), 127U);
}

TEST(UnitEntryDeath, OfAnotherTagIsAFault) {
    const UnitEntry unit = UnitEntry::unit(units::kVolt);
    EXPECT_DEATH(static_cast<void>(unit.prefix_number()),
                 "Tried to decode unit prefix, but entry is not a prefix");
    EXPECT_DEATH(static_cast<void>(unit.apply_conversion(1, false)),
                 "Can only apply conversions using unit conversion nodes");
    Blob blob;
    EXPECT_DEATH(entryToBlob(UnitEntry::conversion(1, 2), blob),
                 "Unexpected type in entryToBlob: 64");
}

}  // namespace
