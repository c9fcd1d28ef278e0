// UnitExpression: the unit of a value, a fraction of prefixes and units such as "kB/s". It is read
// from text or from the blob that objects hold, prints as a label, and converts and formats
// values. A plain value; it says nothing about any value by itself.
//
// A blob is a mark of its version, 51 01, and entries (unit_entry.h) in reverse Polish order: a
// list a, b, c is c b * a *; the denominator comes first, then the numerator, prefix 7 in the place
// of an empty one, then the quotient operator. "kB/s" is
//
//   51 01   11 01   11 09   01 09   21 01   21 02
//   mark    s       B       k       *       /
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "util/unit_entry.h"

class UnitExpression {
  public:
    enum class form_t : uint8_t { brief = 0, full = 1 };
    enum class list_t : uint8_t { numerator, denominator };

    /// Without unit.
    UnitExpression() = default;
    /// Reads `text`: names with or without a prefix, joined by blanks, '*' and '/'. What stands
    /// behind a '/' divides until the next '*'. Never fails: a name that isn't known is kept as it
    /// is, cut to 15 bytes.
    explicit UnitExpression(std::string_view text);
    explicit UnitExpression(uint8_t unit);
    /// Reads a stored expression. One of a newer version is kept as bytes and has no entries.
    /// Throws error::EParseError.
    [[nodiscard]] static UnitExpression from_blob(std::span<const uint8_t> blob);

    /// The stored form; that of a newer version comes back byte for byte.
    [[nodiscard]] std::vector<uint8_t> to_blob() const;
    /// The text; with `omit_one` without prefixes that are plain 1.
    [[nodiscard]] std::string getLabel(form_t form, bool omit_one) const;

    /// A copy with this prefix in front of the numerator.
    [[nodiscard]] UnitExpression with_prefix(uint8_t prefix) const;
    /// One more unit in `list`; equal entries above and below cancel out.
    void multiply(uint8_t unit, list_t list);

    [[nodiscard]] const std::vector<UnitEntry>& numerator() const noexcept { return numerator_; }
    [[nodiscard]] const std::vector<UnitEntry>& denominator() const noexcept {
        return denominator_;
    }
    /// Multiples step by 1024. Set at first for bits and bytes.
    [[nodiscard]] bool binary() const noexcept { return binary_; }
    void set_binary(bool binary) noexcept { binary_ = binary; }
    /// Of the blob that it was read from; 1 for all others.
    [[nodiscard]] uint8_t version() const noexcept { return version_; }

    /// Whether the numerator has bits or bytes.
    [[nodiscard]] bool has_binary_unit() const;
    /// Whether the denominator has `unit` or one that converts to it: with the second it tells a
    /// rate.
    [[nodiscard]] bool denominator_has(uint8_t unit) const;

    /// A copy without the prefixes of its numerator.
    [[nodiscard]] UnitExpression without_prefixes() const;
    /// The same unit with the next prefix up or down that suits it; false, and nothing is changed,
    /// when there is none.
    [[nodiscard]] bool step_prefix(bool up);

    friend bool operator==(const UnitExpression&, const UnitExpression&) = default;

  private:
    friend class UnitConversion;

    void add_token(std::string_view token, std::vector<UnitEntry>& list);
    void cancel();
    /// Prefixes below and above 1 that people use with the unit.
    struct Suits {
        bool fractions = false;
        bool multiples = false;
    };
    [[nodiscard]] Suits suits() const;

    std::vector<UnitEntry> numerator_;
    std::vector<UnitEntry> denominator_;
    bool binary_ = false;
    uint8_t version_ = 1;
    /// Of a newer version.
    std::vector<uint8_t> raw_;
};

struct UnitValue {
    double value = 0;
    UnitExpression unit;
};

/// `value` in `from` as a value in `to`. Units of `from` that don't lead to one of `to` stay. With
/// `autoscale` the prefix is chosen so that the value lies between 1 and 1000 (1024 where `to` is
/// binary), as far as the unit has such prefixes; values from 0 down stay. Two prefixes in one list
/// on either side give `value` and `from` as they are.
[[nodiscard]] UnitValue convert_units(const UnitExpression& from, double value,
                                      const UnitExpression& to, bool autoscale);

/// The text of `value`, measured in `unit`, for people, in the unit `display`: "1.50 kB", "0 s",
/// "nan". Seconds from 61 up, to be shown in seconds, are a duration: "1m 30s". At most 127 bytes.
[[nodiscard]] std::string format_units(const UnitExpression& unit, double value,
                                       const UnitExpression& display);
