// UnitEntry: one member of a unit expression: a prefix, a unit or a text, and what stands beside
// them in a stored expression or during a conversion. A plain value.
//
// In a blob an entry is a byte with the tag in the upper four bits and the length in the lower
// four, and as many bytes of content:
//
//   01 pp   prefix         11 uu   unit           21 oo   operator, 1 product, 2 quotient
//   3n ...  text of n      51 vv   version of the blob, at its beginning alone
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace units {

enum tag_t : uint8_t {
    kPrefixTag = 0,
    kUnitTag = 16,
    kOperatorTag = 32,
    kStringTag = 48,
    kConversionTag = 64,  ///< never in a blob
    kVersionTag = 80,
};
enum operator_t : uint8_t { kProduct = 1, kQuotient = 2 };

/// Of the text of an entry.
inline constexpr size_t kMaxStringLength = 15;

}  // namespace units

class UnitEntry {
  public:
    static UnitEntry prefix(uint8_t number) { return {units::kPrefixTag, number}; }
    static UnitEntry unit(uint8_t number) { return {units::kUnitTag, number}; }
    static UnitEntry operation(units::operator_t number) { return {units::kOperatorTag, number}; }
    /// Keeps the first 15 bytes.
    static UnitEntry string(std::string_view text);
    /// Stands for the step from one unit to another that has a factor.
    static UnitEntry conversion(uint8_t from, uint8_t to);

    /// A number that stands in no list comes from a blob alone.
    [[nodiscard]] uint8_t tag() const noexcept { return tag_; }
    [[nodiscard]] bool is(units::tag_t tag) const noexcept { return tag_ == tag; }

    // Each is a fatal assertion on an entry of another tag.
    [[nodiscard]] uint8_t prefix_number() const;
    [[nodiscard]] uint8_t unit_number() const;
    [[nodiscard]] uint8_t operator_number() const;
    /// Lives as long as the entry.
    [[nodiscard]] std::string_view text() const;
    [[nodiscard]] uint8_t from_unit() const;
    [[nodiscard]] uint8_t to_unit() const;

    /// `value` after the step of this conversion entry, or after the step back.
    [[nodiscard]] double apply_conversion(double value, bool inversely) const;

    friend bool operator==(const UnitEntry&, const UnitEntry&) = default;

  private:
    friend UnitEntry entryFromBlob(std::span<const uint8_t> blob, size_t& cursor);
    friend void entryToBlob(const UnitEntry& entry, std::vector<uint8_t>& blob);

    UnitEntry() = default;
    UnitEntry(units::tag_t tag, uint8_t content)
        : tag_(tag), length_(1), content_{static_cast<char>(content)} {}
    [[nodiscard]] uint8_t byte(size_t at) const noexcept {
        return static_cast<uint8_t>(content_[at]);
    }

    uint8_t tag_ = units::kPrefixTag;
    uint8_t length_ = 0;
    /// Zero behind `length_`.
    std::array<char, units::kMaxStringLength> content_{};
};

/// Reads the entry at `cursor` and moves it behind. Throws error::EParseError. A tag above that of
/// a version is read as it is; what to make of it is the caller's.
[[nodiscard]] UnitEntry entryFromBlob(std::span<const uint8_t> blob, size_t& cursor);
/// Appends the entry; one of a conversion or version is a fatal assertion.
void entryToBlob(const UnitEntry& entry, std::vector<uint8_t>& blob);
