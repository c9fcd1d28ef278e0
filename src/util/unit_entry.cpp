#include "util/unit_entry.h"

#include <algorithm>
#include <fmt/format.h>

#include "error/exception.h"
#include "util/text.h"
#include "util/unit_tables.h"

namespace {

constexpr uint8_t kTagBits = 0xF0;
constexpr uint8_t kLengthBits = 0x0F;

}  // namespace

UnitEntry UnitEntry::string(std::string_view text) {
    UnitEntry entry;
    entry.tag_ = units::kStringTag;
    entry.length_ = static_cast<uint8_t>(std::min(text.size(), units::kMaxStringLength));
    std::copy_n(text.begin(), entry.length_, entry.content_.begin());
    return entry;
}

UnitEntry UnitEntry::conversion(uint8_t from, uint8_t to) {
    UnitEntry entry(units::kConversionTag, from);
    entry.length_ = 2;
    entry.content_[1] = static_cast<char>(to);
    return entry;
}

uint8_t UnitEntry::prefix_number() const {
    error::check(is(units::kPrefixTag), "Tried to decode unit prefix, but entry is not a prefix");
    return byte(0);
}

uint8_t UnitEntry::unit_number() const {
    error::check(is(units::kUnitTag), "Tried to decode unit type, but entry is not a type");
    return byte(0);
}

uint8_t UnitEntry::operator_number() const {
    error::check(is(units::kOperatorTag),
                 "Tried to decode unit operator, but entry is not an operator");
    return byte(0);
}

std::string_view UnitEntry::text() const {
    error::check(is(units::kStringTag), "Tried to decode unit string, but entry is not an string");
    return {content_.data(), length_};
}

uint8_t UnitEntry::from_unit() const {
    error::check(is(units::kConversionTag),
                 "Tried to decode conversion info, but entry does not contain a conversion info");
    return byte(0);
}

uint8_t UnitEntry::to_unit() const {
    error::check(is(units::kConversionTag),
                 "Tried to decode conversion info, but entry does not contain a conversion info");
    return byte(1);
}

double UnitEntry::apply_conversion(double value, bool inversely) const {
    error::check(is(units::kConversionTag),
                 "Can only apply conversions using unit conversion nodes");
    const double factor = units::conversion_factor(from_unit(), to_unit()).value_or(1);
    if (factor != 0) return inversely ? 1 / factor * value : value * factor;
    return inversely ? units::convert_temperature(value, to_unit(), from_unit())
                     : units::convert_temperature(value, from_unit(), to_unit());
}

UnitEntry entryFromBlob(std::span<const uint8_t> blob, size_t& cursor) {
    if (cursor > blob.size()) throw error::EParseError("entryFromBlob past eod");
    if (cursor == blob.size()) throw error::EParseError("entryFromBlob at eod");
    const uint8_t head = blob[cursor];
    const size_t length = head & kLengthBits;
    if (length > blob.size() - cursor - 1) throw error::EParseError("entryFromBlob met eod");
    UnitEntry entry;
    entry.tag_ = head & kTagBits;
    if (entry.tag_ <= units::kOperatorTag && length != 1)
        throw error::EParseError("Wrong length for entry when decoding blob");
    if (entry.is(units::kConversionTag) || entry.is(units::kVersionTag))
        throw error::EParseError(
            fmt::format("Unexpected unit type in entryFromBlob: {}", unsigned{head}));
    entry.length_ = static_cast<uint8_t>(length);
    std::copy_n(blob.begin() + static_cast<std::ptrdiff_t>(cursor) + 1, length,
                entry.content_.begin());
    cursor += length + 1;
    return entry;
}

void entryToBlob(const UnitEntry& entry, std::vector<uint8_t>& blob) {
    error::check(!entry.is(units::kConversionTag) && !entry.is(units::kVersionTag),
                 "Unexpected type in entryToBlob: {}", unsigned{entry.tag_});
    blob.push_back(static_cast<uint8_t>(entry.tag_ | entry.length_));
    blob.insert(blob.end(), entry.content_.begin(), entry.content_.begin() + entry.length_);
}
