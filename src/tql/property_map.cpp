#include "tql/property_map.h"

#include <fmt/format.h>

#include "tql/errors.h"
#include "tql/names.h"

namespace tql {

namespace {

// Enumerations carry marks above these bits; they don't tell enumerations apart.
constexpr uint32_t kEnumerationMask = 0x1ffff;

template <class Kind>
const Kind& extract(const property_t& value, std::string_view class_text) {
    if (value.is_null)
        throw errors::tql(errors::ERR_ILLEGAL_TYPE, fmt::format("Null given for {}: {}", class_text,
                                                                property_name(value.property)));
    if (value.type() != Kind::kType)
        throw errors::tql(
            errors::ERR_ILLEGAL_TYPE,
            fmt::format("Type mismatch for {}: {}", class_text, property_name(value.property)));
    return static_cast<const Kind&>(value);
}

}  // namespace

property_map_t::const_iterator property_map_t::find(uint32_t number) const {
    const auto place = std::lower_bound(
        entries_.begin(), entries_.end(), number,
        [](const value_type& entry, uint32_t wanted) { return entry.first < wanted; });
    return place != entries_.end() && place->first == number ? place : entries_.end();
}

property_map_t::iterator property_map_t::find(uint32_t number) {
    return entries_.begin() + (std::as_const(*this).find(number) - entries_.cbegin());
}

const value_t& property_map_t::at(uint32_t number) const {
    const auto found = find(number);
    if (found == end()) throw std::out_of_range("no value of property " + property_name(number));
    return found->second;
}

value_t& property_map_t::at(uint32_t number) {
    return const_cast<value_t&>(std::as_const(*this).at(number));
}

value_t& property_map_t::operator[](uint32_t number) {
    if (entries_.empty() || entries_.back().first < number)
        return entries_.emplace_back(number, value_t()).second;
    const auto place = std::lower_bound(
        entries_.begin(), entries_.end(), number,
        [](const value_type& entry, uint32_t wanted) { return entry.first < wanted; });
    if (place->first == number) return place->second;
    return entries_.emplace(place, number, value_t())->second;
}

bool property_map_t::emplace(uint32_t number, value_t value) {
    if (contains(number)) return false;
    (*this)[number] = std::move(value);
    return true;
}

size_t property_map_t::erase(uint32_t number) {
    const auto found = find(number);
    if (found == end()) return 0;
    entries_.erase(found);
    return 1;
}

void add_enum(property_map_t& map, uint32_t property, uint32_t enumeration, uint32_t value,
              uint32_t flags) {
    map[property].emplace<property_enum_t>(property, enumeration, value, flags);
}

void add_null_enum(property_map_t& map, uint32_t property, uint32_t enumeration, uint32_t flags) {
    map[property].emplace<property_enum_t>(property_enum_t::null(property, enumeration, flags));
}

uint32_t as_uint(const property_t& value) {
    return extract<property_uint_t>(value, "property_uint_t").value;
}

bool as_boolean(const property_t& value) {
    return extract<property_boolean_t>(value, "property_boolean_t").value;
}

const std::string& as_string(const property_t& value) {
    return extract<property_string_t>(value, "property_string_t").value;
}

const id_t& as_object(const property_t& value) {
    return extract<property_object_t>(value, "property_object_t").value;
}

const std::set<id_t>& as_object_set(const property_t& value) {
    return extract<property_object_set_t>(value, "property_object_set_t").value;
}

const std::vector<uint8_t>& as_blob(const property_t& value) {
    return extract<property_blob_t>(value, "property_blob_t").value;
}

uint32_t as_enum(const property_t& value, uint32_t expected_enumeration) {
    if (value.is_null)
        throw errors::tql(errors::ERR_ILLEGAL_TYPE, fmt::format("Null given for property_t: {}",
                                                                property_name(value.property)));
    const auto mismatch = [&](const std::string& actual) {
        return errors::tql(
            errors::ERR_ILLEGAL_TYPE,
            fmt::format("Type mismatch for property_t: {} [exp:{},actual:{}]",
                        property_name(value.property), expected_enumeration, actual));
    };
    if (value.type() != property_type_t::enum_) throw mismatch(" non-enum");
    const auto& given = static_cast<const property_enum_t&>(value);
    if ((given.enumeration & kEnumerationMask) != expected_enumeration)
        throw mismatch(fmt::format("{}", given.enumeration));
    return given.value;
}

}  // namespace tql
