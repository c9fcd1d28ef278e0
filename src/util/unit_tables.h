// The prefixes and units that the system knows, by the numbers that stored expressions hold, and
// what leads from one unit to another. Read-only tables; expressions of them are in
// unit_expression.h.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace units {

/// Numbers of units that code speaks of; all are in the table of unit_tables.cpp.
enum unit_t : uint8_t {
    kNoUnit = 0,
    kSecond = 1,
    kMinute = 2,
    kHour = 3,
    kDay = 4,
    kWeek = 5,
    kMonth = 6,
    kYear = 7,
    kBit = 8,
    kByte = 9,
    kVolt = 10,
    kAmpere = 11,
    kWatt = 12,
    kHertz = 13,
    kCelsius = 14,
    kFahrenheit = 15,
    kKelvin = 16,
    kMetre = 17,
    kInch = 18,
    kPercent = 19,
    kShownPercent = 20,  ///< per cent, as the display unit of scaled values
    kRpm = 21,
};
inline constexpr uint8_t kUnitCount = 22;

inline constexpr uint8_t kHundredth = 5;  ///< the prefix "c" or "0.01"
inline constexpr uint8_t kOne = 7;        ///< the prefix that changes nothing
inline constexpr uint8_t kPrefixCount = 15;
/// Ends the chain of prefixes up or down.
inline constexpr uint8_t kNoPrefix = 15;

struct Prefix {
    std::string_view label;
    /// What a text may hold for it; the first one is the long label.
    std::span<const std::string_view> texts;
    int power_of_ten = 0;
    /// The next smaller and greater prefix when a value is scaled, or kNoPrefix.
    uint8_t down = kNoPrefix;
    uint8_t up = kNoPrefix;
};
struct Unit {
    std::string_view label;
    std::span<const std::string_view> texts;
};

/// A number beyond the table reads as 0, with power 0 and neither up nor down.
[[nodiscard]] Prefix prefix(uint8_t number);
/// A number beyond the table reads as 0.
[[nodiscard]] Unit unit(uint8_t number);

/// What a value in `from` is multiplied by to be one in `to`; 0 marks two temperatures, for which
/// convert_temperature() has the rule. None when the units have nothing to do with each other, and
/// for a unit and itself.
[[nodiscard]] std::optional<double> conversion_factor(uint8_t from, uint8_t to);

/// Between kCelsius, kFahrenheit and kKelvin. Throws error::EParseError for another number.
[[nodiscard]] double convert_temperature(double value, uint8_t from, uint8_t to);

}  // namespace units
