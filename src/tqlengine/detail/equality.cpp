#include "tqlengine/detail/equality.h"

#include <bit>
#include <cmath>
#include <string_view>
#include <type_traits>

#include "error/exception.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_kinds.h"

namespace tqlengine::detail {

namespace {

constexpr uint64_t kNullHash = 0x6E756C6C;

void mix(uint64_t& hash, uint64_t word) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 32;
}

uint64_t text_hash(std::string_view text) {
    uint64_t hash = text.size();
    for (const char c : text)
        mix(hash, static_cast<uint8_t>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c));
    return hash;
}

template <class Words>
uint64_t words_hash(const Words& words) {
    uint64_t hash = words.size();
    for (const uint32_t word : words) mix(hash, word);
    return hash;
}

// None where equality isn't that of the values, or not worth a hash.
template <class Kind>
std::optional<uint64_t> payload_hash(const Kind& kind) {
    using Value = typename Kind::value_type;
    const Value& value = kind.value;
    if constexpr (std::is_same_v<Value, std::string>) {
        return text_hash(value);
    } else if constexpr (std::is_same_v<Value, tql::id_t> ||
                         std::is_same_v<Value, std::vector<uint32_t>>) {
        return words_hash(value);
    } else if constexpr (std::is_same_v<Value, double>) {
        if (std::isnan(value)) return std::nullopt;  // equal to every number
        return value == 0 ? 0 : std::bit_cast<uint64_t>(value);
    } else if constexpr (std::is_integral_v<Value>) {
        return static_cast<uint64_t>(value);
    } else {
        return std::nullopt;
    }
}

std::optional<uint64_t> value_hash(const tql::property_t& value) {
    if (value.is_null) return kNullHash;
    return tql::visit_kind(value, [](const auto& kind) { return payload_hash(kind); });
}

bool demands_equality(const tql::condition_t& condition) {
    return condition.op == tql::relop_t::eq || condition.op == tql::relop_t::ieq;
}

bool fits_every_id(const tql::condition_t& condition) {
    const tql::property_type_t type = condition.value->type();
    if (condition.op == tql::relop_t::in) return type == tql::property_type_t::object_set;
    return type == tql::property_type_t::object &&
           (condition.op == tql::relop_t::eq || condition.op == tql::relop_t::ne);
}

}  // namespace

Equality equality_of(const tql::pattern_t& step) {
    Equality found;
    for (const tql::condition_t& condition : step.where) {
        if (!condition.value) break;
        if (condition.value->property == prop::id) {
            if (!fits_every_id(condition)) break;
            continue;
        }
        const std::optional<uint64_t> hash =
            demands_equality(condition) ? value_hash(*condition.value) : std::nullopt;
        if (!hash) break;
        found.fields.push_back({condition.value->property, tql::kind_of(*condition.value)});
        mix(found.values, *hash);
    }
    return found;
}

HeldValues::Outcome HeldValues::compare(const EqualityFields& fields) {
    if (!read(fields)) return {outcome_t::unknown};
    Outcome outcome{outcome_t::hash};
    for (const EqualityField& field : fields) {
        if (tests_itself(field)) return {outcome_t::unknown};
        const auto held = values_.find(field.property);
        if (held == values_.end()) return {outcome_t::differs};
        if (tql::kind_of(*held->second) != field.kind) return {outcome_t::unknown};
        const std::optional<uint64_t> hash = value_hash(*held->second);
        if (!hash) return {outcome_t::unknown};
        mix(outcome.values, *hash);
    }
    return outcome;
}

/// False when a value can't be read.
bool HeldValues::read(const EqualityFields& fields) {
    tql::pattern_t wanted(cls::Any);
    for (const EqualityField& field : fields)
        if (!known_.contains(field.property)) wanted.wanted_properties.insert(field.property);
    if (wanted.wanted_properties.empty()) return true;
    try {
        tql::property_map_t values;
        object_.tqlEncode(wanted, values);
        for (auto& [number, value] : values) values_[number] = std::move(value);
    } catch (const errors::tql&) {
        return false;
    } catch (const errors::stdanomaly&) {
        return false;
    }
    known_.insert(wanted.wanted_properties.begin(), wanted.wanted_properties.end());
    return true;
}

bool HeldValues::tests_itself(const EqualityField& field) {
    tql::condition_t probe{tql::make_value(field.kind.type), tql::relop_t::eq};
    probe.value->property = field.property;
    probe.value->is_null = true;
    uint32_t result = 0;
    return object_.tqlSpecialMatch(result, probe);
}

}  // namespace tqlengine::detail
