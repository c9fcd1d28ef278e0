#include "tqlengine/shortcut.h"

#include "tql/names.h"
#include "tql/property_kinds.h"

namespace tqlengine {

namespace {

// The value of the first condition with this property, operator and kind; null when there is none.
template <class Kind>
const Kind* find_condition(const tql::pattern_t& pattern, uint32_t property, tql::relop_t op) {
    for (const tql::condition_t& condition : pattern.where)
        if (condition.op == op && condition.value && condition.value->property == property &&
            condition.value->type() == Kind::kType)
            return static_cast<const Kind*>(condition.value.get());
    return nullptr;
}

/// A condition says that this property is true.
bool demands(const tql::pattern_t& pattern, uint32_t property) {
    const auto* value =
        find_condition<tql::property_boolean_t>(pattern, property, tql::relop_t::eq);
    return value != nullptr && !value->is_null && value->value;
}

}  // namespace

Shortcut choose_shortcut(const tql::pattern_t& pattern) {
    using tql::property_object_set_t;
    using tql::property_object_t;
    using tql::relop_t;
    // No index knows templates, which have the id of another object or none.
    if ((pattern.flags & tql::kPatternTemplates) != 0) return NoShortcut{};
    if (const auto* id = find_condition<property_object_t>(pattern, prop::id, relop_t::eq)) {
        if (id->is_null) return MatchesNothing{};
        return ById{id->value};
    }
    if (const auto* ids = find_condition<property_object_set_t>(pattern, prop::id, relop_t::in)) {
        if (ids->is_null) return MatchesNothing{};
        return ByIds{&ids->value};
    }
    if (const auto* object =
            find_condition<property_object_t>(pattern, prop::alertNotifyObject, relop_t::eq)) {
        if (object->is_null) return NoShortcut{};
        if (object->value.size() != 2) return MatchesNothing{};
        return ByAlertNotifyObject{object->value};
    }
    if (pattern.class_ == cls::TagRuleMatch) return ByMark{prop::activeMark};
    const bool checks = pattern.class_ == cls::Check || pattern.class_ == cls::MultiCheck;
    if (checks && demands(pattern, prop::active)) return ByMark{prop::activeMark};
    if (demands(pattern, prop::hasInherits)) return ByMark{prop::inheritsMark};
    const auto* master = find_condition<property_object_t>(pattern, prop::masterId, relop_t::eq);
    if (master && !master->is_null) return ByMasterId{master->value};
    return NoShortcut{};
}

}  // namespace tqlengine
