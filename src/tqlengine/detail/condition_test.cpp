#include "tqlengine/detail/condition_test.h"

#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_kinds.h"

namespace tqlengine::detail {

namespace {

constexpr uint32_t kMatch = 0;
constexpr uint32_t kNoMatch = 1;
constexpr uint32_t kOtherObject = 2;

template <class Kind>
const Kind& expect_kind(const tql::property_t& value, const char* mismatch) {
    if (value.type() != Kind::kType)
        throw errors::tql_incomparable(mismatch + tql::property_name(value.property));
    return static_cast<const Kind&>(value);
}

// The id of an object is no stored value of every class, so it is compared here. A null names no
// object.
bool id_holds(const tql::id_t& id, const tql::condition_t& condition) {
    const tql::property_t& value = *condition.value;
    switch (condition.op) {
        case tql::relop_t::eq:
        case tql::relop_t::ne: {
            const auto& object =
                expect_kind<tql::property_object_t>(value, "Type mismatch, object != type of ");
            const bool equal = !object.is_null && object.value == id;
            return equal == (condition.op == tql::relop_t::eq);
        }
        case tql::relop_t::in: {
            const auto& set = expect_kind<tql::property_object_set_t>(
                value, "Type mismatch, object_set != type of ");
            return !set.is_null && set.value.contains(id);
        }
        default:
            throw errors::tql_incomparable("Unknown relative operator");
    }
}

bool holds(TqlObjectHandler& handler, const tql::property_map_t& properties,
           const tql::condition_t& condition) {
    const uint32_t number = condition.value->property;
    const auto found = properties.find(number);
    if (found != properties.end()) return found->second->compare(condition.op, *condition.value);
    return number == prop::id && id_holds(handler.tqlId(), condition);
}

}  // namespace

uint32_t ConditionTest::objectMatches(TqlObjectHandler& handler, const tql::pattern_t& step) {
    ++statistics_.object_matches;
    if (step.class_ != cls::Any && step.class_ != handler.class_number()) return kOtherObject;
    const bool is_template = (handler.tqlFlags() & kObjectTemplate) != 0;
    const bool wants_template = (step.flags & tql::kPatternTemplates) != 0;
    if (is_template != wants_template) return kOtherObject;
    return step.where.empty() ? kMatch : test_conditions(handler, step);
}

uint32_t ConditionTest::test_conditions(TqlObjectHandler& handler, const tql::pattern_t& step) {
    ++statistics_.lengthy;
    bool read = false;
    for (const tql::condition_t& condition : step.where) {
        if (!read) {
            if (const std::optional<bool> known = handler.holds_at_hand(condition)) {
                if (!*known) return kNoMatch;
                continue;
            }
            values_.clear();
            handler.tqlEncode(properties_of_conditions(step), values_);
            read = true;
        }
        uint32_t result = kMatch;
        if (handler.tqlSpecialMatch(result, condition)) {
            if (result != kMatch) return result;
        } else if (!holds(handler, values_, condition)) {
            return kNoMatch;
        }
    }
    return kMatch;
}

const tql::pattern_t& ConditionTest::properties_of_conditions(const tql::pattern_t& step) {
    if (last_step_ == &step) return *last_properties_;
    const auto [place, inserted] = condition_properties_.try_emplace(&step, cls::Any);
    if (inserted)
        for (const tql::condition_t& condition : step.where)
            place->second.wanted_properties.insert(condition.value->property);
    last_step_ = &step;
    last_properties_ = &place->second;
    return place->second;
}

}  // namespace tqlengine::detail
