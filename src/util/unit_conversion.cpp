// Converting and formatting values with units.
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

#include "util/unit_expression.h"
#include "util/unit_tables.h"

/// One conversion towards a target with fixed prefixes. `unit` goes step by step from the source to
/// the result.
class UnitConversion {
  public:
    UnitConversion(const UnitExpression& from, double value, const UnitExpression& to,
                   bool autoscale)
        : from_(from), to_(to), autoscale_(autoscale), unit_(from), value_(value) {}

    /// False when a list on either side has two prefixes: nothing can be converted then.
    bool run() {
        if (!plan(to_.numerator_, unit_.numerator_, to_above_) ||
            !plan(to_.denominator_, unit_.denominator_, to_below_) ||
            !exchange_prefix(unit_.numerator_, to_above_, from_above_) ||
            !exchange_prefix(unit_.denominator_, to_below_, from_below_))
            return false;
        apply(unit_.numerator_, false);
        apply(unit_.denominator_, true);
        take_prefixes_away();
        put_prefixes_on();
        unit_.binary_ = to_.binary_;  // the label tells what the number was divided by
        return true;
    }

    [[nodiscard]] double value() const noexcept { return value_; }
    [[nodiscard]] const UnitExpression& unit() const noexcept { return unit_; }

  private:
    using List = std::vector<UnitEntry>;

    /// Notes the prefix of the target's list and puts conversions to its units into the source's.
    bool plan(const List& target, List& list, std::optional<uint8_t>& prefix) const {
        for (const UnitEntry& entry : target) {
            if (entry.is(units::kPrefixTag)) {
                if (prefix) return false;
                prefix = entry.prefix_number();
                if (autoscale_ && *prefix == units::kHundredth) prefix = units::kOne;
            } else if (entry.is(units::kUnitTag)) {
                const uint8_t unit = entry.unit_number();
                plan_unit(
                    autoscale_ && unit == units::kPercent ? uint8_t{units::kShownPercent} : unit,
                    list);
            }
        }
        return true;
    }

    static void plan_unit(uint8_t wanted, List& list) {
        for (auto entry = list.begin(); entry != list.end(); ++entry) {
            if (!entry->is(units::kUnitTag)) continue;
            const uint8_t unit = entry->unit_number();
            if (!units::conversion_factor(unit, wanted)) continue;
            *entry = UnitEntry::unit(wanted);
            list.insert(entry, UnitEntry::conversion(unit, wanted));
            return;
        }
    }

    /// Notes the prefix of the source's list and puts that of the target in its place.
    static bool exchange_prefix(List& list, const std::optional<uint8_t>& target,
                                std::optional<uint8_t>& source) {
        for (auto entry = list.begin(); entry != list.end();) {
            if (!entry->is(units::kPrefixTag)) {
                ++entry;
                continue;
            }
            if (source) return false;
            source = entry->prefix_number();
            if (target)
                *entry++ = UnitEntry::prefix(*target);
            else
                entry = list.erase(entry);
        }
        if (!source && target) list.insert(list.begin(), UnitEntry::prefix(*target));
        return true;
    }

    void apply(List& list, bool inversely) {
        for (auto entry = list.begin(); entry != list.end();) {
            if (!entry->is(units::kConversionTag)) {
                ++entry;
                continue;
            }
            value_ = entry->apply_conversion(value_, inversely);
            entry = list.erase(entry);
        }
    }

    [[nodiscard]] static int power(const std::optional<uint8_t>& prefix) {
        return prefix ? units::prefix(*prefix).power_of_ten : 0;
    }
    /// Steps of 1024 that a prefix stands for. None for those that are no power of 1000, and for
    /// those below 1: there is no binary milli, so they are decimal.
    [[nodiscard]] static int binary_steps(int power) {
        return power > 0 && power % 3 == 0 ? power / 3 : 0;
    }

    void take_prefixes_away() {
        const int above = power(from_above_);
        const int steps = from_.binary_ ? binary_steps(above) : 0;
        value_ *= steps > 0 ? std::ldexp(1.0, 10 * steps) : std::pow(10.0, above);
        value_ *= std::pow(10.0, -power(from_below_));
    }

    void put_prefixes_on() {
        const int above = power(to_above_);
        if (to_.binary_ && above / 3 < 0) return;
        const int steps = to_.binary_ ? binary_steps(above) : 0;
        value_ *= steps > 0 ? std::ldexp(1.0, -10 * steps) : std::pow(10.0, -above);
        value_ *= std::pow(10.0, power(to_below_));
    }

    const UnitExpression& from_;
    const UnitExpression& to_;
    const bool autoscale_;
    UnitExpression unit_;
    double value_;
    std::optional<uint8_t> from_above_;
    std::optional<uint8_t> from_below_;
    std::optional<uint8_t> to_above_;
    std::optional<uint8_t> to_below_;
};

namespace {

constexpr double kDecimalLimit = 1000;
constexpr double kBinaryLimit = 1024;

constexpr int kShortestDuration = 61;
constexpr int kMinute = 60;
constexpr int kHour = 3600;
constexpr int kDay = 86400;

/// A formatted text is cut to what fits in here with a terminator.
using Buffer = std::array<char, 128>;

std::string not_finite(double value) {
    if (std::isnan(value)) return "nan";
    return value > 0 ? "inf" : "-inf";
}

bool shows_seconds(const UnitExpression& unit) {
    return unit.getLabel(UnitExpression::form_t::brief, true) == "s";
}

std::string duration(int seconds) {
    Buffer text{};
    if (seconds <= kHour)
        std::snprintf(text.data(), text.size(), "%im %is", seconds / kMinute, seconds % kMinute);
    else if (seconds <= kDay)
        std::snprintf(text.data(), text.size(), "%ih %im", seconds / kHour,
                      seconds % kHour / kMinute);
    else
        std::snprintf(text.data(), text.size(), "%d%s %ih %im", seconds / kDay, " days,",
                      seconds % kDay / kHour, seconds % kHour / kMinute);
    return text.data();
}

/// Digits behind the point by size; a negative value is below all limits.
std::string number_with_label(double value, const std::string& label) {
    Buffer text{};
    const char* unit = label.c_str();
    if (value == 0)
        std::snprintf(text.data(), text.size(), "0 %s", unit);
    else if (value < 0.01)
        std::snprintf(text.data(), text.size(), "%0.5f %s", value, unit);
    else if (value < 0.1)
        std::snprintf(text.data(), text.size(), "%0.4f %s", value, unit);
    else if (value < 1)
        std::snprintf(text.data(), text.size(), "%0.3f %s", value, unit);
    else if (value < 10)
        std::snprintf(text.data(), text.size(), "%1.2f %s", value, unit);
    else if (value < 100)
        std::snprintf(text.data(), text.size(), "%2.1f %s", value, unit);
    else
        std::snprintf(text.data(), text.size(), "%.0f %s", value, unit);
    return text.data();
}

}  // namespace

UnitValue convert_units(const UnitExpression& from, double value, const UnitExpression& to,
                        bool autoscale) {
    UnitExpression target = to;
    std::optional<bool> direction;
    for (;;) {
        UnitConversion conversion(from, value, target, autoscale);
        if (!conversion.run()) return {value, from};
        const double result = conversion.value();
        const bool up = result >= (target.binary() ? kBinaryLimit : kDecimalLimit);
        const bool down = result > 0 && result < 1;
        // Rounding may put a value on either side of a step; without this it would go up and down.
        const bool turns = direction && *direction != up;
        if (!autoscale || (!up && !down) || turns) return {result, conversion.unit()};
        if (!target.step_prefix(up)) return {result, target};
        direction = up;
    }
}

std::string format_units(const UnitExpression& unit, double value, const UnitExpression& display) {
    if (!std::isfinite(value)) return not_finite(value);
    const bool fits = value < -static_cast<double>(std::numeric_limits<int32_t>::min());
    if (value >= kShortestDuration && fits && shows_seconds(display) && shows_seconds(unit))
        return duration(static_cast<int>(value));
    const UnitExpression target = display.without_prefixes();
    const bool autoscale = target.getLabel(UnitExpression::form_t::full, true) != "0.01";
    const UnitValue shown = convert_units(unit, value, target, autoscale);
    if (!std::isfinite(shown.value)) return not_finite(shown.value);
    return number_with_label(shown.value, shown.unit.getLabel(UnitExpression::form_t::brief, true));
}
