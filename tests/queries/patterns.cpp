#include "patterns.h"

#include <array>

namespace queries {

using tql::relop_t;

namespace {

constexpr uint32_t kOwnValues[] = {
    prop::parentId,    prop::name,      prop::label,     prop::comment,     prop::infoUrl,
    prop::siblingName, prop::active,    prop::masterId,  prop::hasInherits, prop::inherits,
    prop::agentId,     prop::checkType, prop::dependsOn, prop::startTime,   prop::alertNotifyObject,
};
/// Counters, values from elsewhere, and what no class has.
constexpr uint32_t kOtherValues[] = {prop::id,
                                     prop::countNodes,
                                     prop::countNetChecks,
                                     prop::treeLabel,
                                     prop::longLabel,
                                     prop::remoteType,
                                     prop::anyOverridden,
                                     prop::activeMark,
                                     16383};
constexpr relop_t kOrders[] = {relop_t::eq, relop_t::gt, relop_t::lt,
                               relop_t::ge, relop_t::le, relop_t::ne};

template <class Kind, class... Payload>
tql::condition_t where(uint32_t property, relop_t op, Payload&&... payload) {
    return {std::make_unique<Kind>(property, std::forward<Payload>(payload)...), op};
}
template <class Kind>
tql::condition_t where_null(uint32_t property, relop_t op) {
    return {std::make_unique<Kind>(Kind::null(property)), op};
}

template <class Items>
auto pick(support::Rng& rng, const Items& items) {
    return items[rng.below(std::size(items))];
}

}  // namespace

tql::pattern_t PatternMaker::pattern(uint32_t class_number, int levels) {
    tql::pattern_t step(rng_.chance(20) ? uint32_t{cls::Any} : class_number);
    add_flags(step);
    add_wanted(step);
    if (rng_.chance(50)) step.tag = static_cast<uint32_t>(rng_.below(4));
    if (rng_.chance(35)) step.where.push_back(condition(class_number));
    if (rng_.chance(6)) step.where.push_back(condition(class_number));
    if (levels == 0 || rng_.chance(15)) return step;
    const auto below = [&] {
        // What follows a recursive step is tried on the object itself as well.
        const bool same = (step.flags & tql::kPatternRecursive) != 0 && rng_.chance(10);
        return pattern(same ? class_number : class_below(class_number), levels - 1);
    };
    for (uint64_t n = 1 + rng_.below(2); n > 0; --n) step.next.push_back(below());
    while (rng_.chance(25)) step.cond_next.push_back(below());
    return step;
}

void PatternMaker::add_flags(tql::pattern_t& step) {
    const std::pair<uint32_t, unsigned> flags[] = {
        {tql::kPatternRecursive, step.class_ == cls::Any || step.class_ == cls::Domain ? 60 : 25},
        {tql::kPatternKeep, 20},
        {tql::kPatternSplice, 10},
        {tql::kPatternTemplates, 6},
        {tql::kPatternAllProperties, ask_ == ask_t::told ? 0 : 15},
    };
    for (const auto& [flag, percent] : flags)
        if (rng_.chance(percent)) step.flags |= flag;
}

void PatternMaker::add_wanted(tql::pattern_t& step) {
    while (rng_.chance(60)) step.wanted_properties.insert(pick(rng_, kOwnValues));
    if (ask_ == ask_t::anything && rng_.chance(30))
        step.wanted_properties.insert(pick(rng_, kOtherValues));
}

uint32_t PatternMaker::class_below(uint32_t class_number) {
    const std::vector<uint32_t> below = classes_below(class_number);
    if (below.empty() || rng_.chance(5)) return pick(rng_, std::array{cls::Check, cls::Domain});
    return pick(rng_, below);
}

tql::condition_t PatternMaker::condition(uint32_t class_number) {
    const uint64_t kind = rng_.below(100);
    if (kind < 45) return index_condition(class_number);
    if (kind < 80) return text_condition();
    return odd_condition();
}

// Those that an index, a mark list or the index of siblings may answer.
tql::condition_t PatternMaker::index_condition(uint32_t class_number) {
    const auto id = [&] {
        const tql::id_t fitting =
            rng_.chance(70) ? world_.random_id(rng_, class_number) : tql::id_t();
        return fitting.empty() ? world_.random_id(rng_) : fitting;
    };
    switch (rng_.below(9)) {
        case 0:
            return where<tql::property_object_t>(prop::id, relop_t::eq, id());
        case 1:
            return where<tql::property_object_set_t>(prop::id, relop_t::in,
                                                     std::set{id(), id(), id(), id()});
        case 2:
            return where<tql::property_object_t>(prop::id, relop_t::ne, id());
        case 3:
            return where<tql::property_object_t>(prop::masterId, relop_t::eq, id());
        case 4:
            return where<tql::property_object_t>(prop::alertNotifyObject, relop_t::eq, id());
        case 5:
            return where<tql::property_boolean_t>(prop::hasInherits, relop_t::eq, rng_.chance(80));
        case 6:
            return where<tql::property_string_t>(prop::siblingName, relop_t::eq, random_name(rng_));
        default:
            return where<tql::property_boolean_t>(prop::active, relop_t::eq, rng_.chance(80));
    }
}

tql::condition_t PatternMaker::text_condition() {
    constexpr relop_t kOnTexts[] = {relop_t::eq, relop_t::gt,     relop_t::lt,  relop_t::ge,
                                    relop_t::le, relop_t::ne,     relop_t::ieq, relop_t::ine,
                                    relop_t::ge, relop_t::isubstr};
    const uint32_t property =
        pick(rng_, std::array{prop::name, prop::name, prop::label, prop::comment});
    relop_t op = pick(rng_, kOnTexts);
    // A null doesn't take part in a search for a part of it.
    if (op == relop_t::isubstr && (ask_ == ask_t::told || rng_.chance(70)) &&
        property != prop::name)
        op = relop_t::ine;
    if (rng_.chance(15) && op != relop_t::isubstr)
        return where_null<tql::property_string_t>(property, op);
    return where<tql::property_string_t>(property, op, random_name(rng_));
}

tql::condition_t PatternMaker::odd_condition() {
    using ids = std::set<tql::id_t>;
    const auto id = [&] { return world_.random_id(rng_); };
    switch (rng_.below(ask_ == ask_t::told ? 6 : 10)) {
        case 0:
            return where<tql::property_object_set_t>(prop::parentId, relop_t::in,
                                                     ids{id(), id(), id(), id()});
        case 1:
            return where<tql::property_object_t>(prop::parentId, pick(rng_, kOrders), id());
        case 2:
            return where<tql::property_object_set_t>(
                prop::dependsOn,
                pick(rng_, std::array{relop_t::subset, relop_t::superset, relop_t::intersects,
                                      relop_t::eq, relop_t::ne}),
                rng_.chance(30) ? ids{} : ids{id(), id(), id()});
        case 3:
            return where<tql::property_date_t>(prop::startTime, pick(rng_, kOrders),
                                               static_cast<int64_t>(rng_.below(10)));
        case 4:
            return where_null<tql::property_object_t>(prop::masterId, relop_t::ne);
        case 5:
            return rng_.chance(50) ? where_null<tql::property_object_t>(prop::id, relop_t::eq)
                                   : where_null<tql::property_object_set_t>(prop::id, relop_t::in);
        case 6:
            return where<tql::property_uint_t>(prop::countNodes, pick(rng_, kOrders),
                                               static_cast<uint32_t>(rng_.below(3)));
        case 7:  // of another kind
            return where<tql::property_uint_t>(prop::comment, relop_t::eq, 1U);
        case 8:
            return where<tql::property_string_t>(
                prop::infoUrl, rng_.chance(50) ? relop_t::contains : static_cast<relop_t>(99), "a");
        default:
            return where<tql::property_object_t>(prop::id, relop_t::gt, id());
    }
}

}  // namespace queries
