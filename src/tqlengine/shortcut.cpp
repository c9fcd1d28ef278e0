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

}  // namespace

Shortcut choose_shortcut(const tql::pattern_t& pattern) {
    using tql::property_object_set_t;
    using tql::property_object_t;
    using tql::relop_t;
    if (pattern.where.empty()) return NoShortcut{};

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
    // The rules for objects that the store keeps in lists of marks belong here, before the last.
    const auto* master = find_condition<property_object_t>(pattern, prop::masterId, relop_t::eq);
    if (master && !master->is_null) return ByMasterId{master->value};
    return NoShortcut{};
}

}  // namespace tqlengine
