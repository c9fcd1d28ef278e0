#include "world.h"

#include <fmt/format.h>

#include "dbcache/schema/agent_check_schema.h"
#include "dbcache/schema/alert_schemas.h"
#include "dbcache/schema/net_check_schema.h"
#include "dbcache/schema/plan_schemas.h"
#include "dbcache/schema/tree_schemas.h"
#include "tql/enumerations.h"
#include "tqlengine/computed_handler.h"
#include "tqlengine/requests.h"

namespace queries {

using dbcache_test::number;
using dbcache_test::text;

namespace {

constexpr uint32_t kPartClass = cls::ScoreInfo;
const tql::id_t kRoot = tql::id_t::from_node_id(dbcache::kRootId);

/// A computed child of an inventory group; it shows the label of the group under another name. The
/// first one has one below it.
class Part final : public tqlengine::TqlComputedObjectHandler {
  public:
    Part(tqlengine::HandlerRef group, uint32_t place)
        : TqlComputedObjectHandler(kPartClass), group_(std::move(group)), place_(place) {}

    [[nodiscard]] tql::internal_id_t tqlInternalId() const override {
        return tql::internal_id_t::by_place(class_number(), place_);
    }
    void tqlChildrenHandlers(tqlengine::HandlerList& out, const tql::pattern_t&) override {
        if (place_ == 0) out.push_back(tqlengine::HandlerRef(new Part(group_, 2)));
    }
    tqlengine::HandlerRef tqlParentHandler() override { return group_; }
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override {
        if (!pattern.wants(prop::name)) return;
        tql::pattern_t label(cls::Any);
        label.wanted_properties = {prop::label};
        tql::property_map_t values;
        group_->tqlEncode(label, values);
        const tql::property_t& shown = *values.at(prop::label);
        tql::add<tql::property_string_t>(out, prop::name,
                                         shown.is_null ? "" : tql::as_string(shown));
    }

  private:
    tqlengine::HandlerRef group_;
    uint32_t place_;
};

class GroupWithParts final : public dbcache::NodeInfoGroupSchema {
  public:
    bool childrenHook(dbcache::ObjectHandler& handler, const tql::pattern_t&,
                      tqlengine::HandlerList& out) const override {
        for (const uint32_t place : {0U, 1U})
            out.push_back(
                tqlengine::HandlerRef(new Part(dbcache::ObjectHandlerRef(&handler), place)));
        return false;
    }
};

void declare(dbcache::SchemaTable& table) {
    table.registerSchema(std::make_unique<dbcache::DomainSchema>());
    table.registerSchema(std::make_unique<dbcache::NodeSchema>());
    table.registerSchema(std::make_unique<GroupWithParts>());
    table.registerSchema(std::make_unique<dbcache::NetCheckSchema>());
    table.registerSchema(std::make_unique<dbcache::AgentCheckSchema>());
    table.registerSchema(std::make_unique<dbcache::AgentCheckGroupSchema>());
    dbcache::schema::declare_plans(table);
    dbcache::schema::declare_alerts(table);
    table.seal();
}

tql::value_t object(uint32_t property, const tql::id_t& id) {
    return std::make_unique<tql::property_object_t>(property, id);
}
tql::value_t flag(uint32_t property, bool value) {
    return std::make_unique<tql::property_boolean_t>(property, value);
}
tql::value_t date(uint32_t property, int64_t value) {
    return std::make_unique<tql::property_date_t>(property, value);
}
tql::value_t choice(uint32_t property, uint32_t value) {
    const uint32_t id = tql::find_property_row(property)->usual_kind.enumeration;
    return std::make_unique<tql::property_enum_t>(property, id, value, 0U);
}

bool can_inherit(uint32_t class_number) {
    return class_number == cls::WeekPlanner || class_number == cls::ExpectedEvent;
}

template <class Item>
const Item& pick(support::Rng& rng, const std::vector<Item>& items) {
    return items[rng.below(items.size())];
}

}  // namespace

std::vector<uint32_t> classes_below(uint32_t class_number) {
    switch (class_number) {
        case cls::Domain:
            return {cls::Domain, cls::Domain, cls::Node,
                    cls::Node,   cls::Plan,   cls::NotificationJob};
        case cls::Node:
            return {cls::CheckGroup, cls::CheckGroup, cls::NodeInfoGroup, cls::Plan};
        case cls::CheckGroup:
            return {cls::CheckGroup, cls::Check};
        case cls::NodeInfoGroup:
            return {cls::NodeInfoGroup, kPartClass};
        case cls::Plan:
            return {cls::WeekPlanner, cls::ExpectedEvent};
        default:
            return {};
    }
}

std::string random_name(support::Rng& rng) {
    return std::string(1, "abcdABC"[rng.below(7)]);
}

World::World() : store({}, declare) {
    known_[kRoot] = {{}, cls::Domain, {}};
}

// ---- writes ------------------------------------------------------------------------------------

std::string World::write(support::Rng& rng) {
    const size_t size = known_.size();
    const uint64_t kind = rng.below(100);
    if (kind < (size < 12 ? 80U : size > 45 ? 15U : 35U)) return create(rng);
    if (kind < 70) return update(rng);
    return kind < 85 ? move(rng) : remove(rng);
}

std::string World::told(std::string what, uint32_t status) {
    ++writes_;
    if (status == errors::ERR_SUCCESS) return what;
    ++refused_;
    return fmt::format("{} refused with {}", what, status);
}

std::string World::create(support::Rng& rng) {
    const uint32_t class_number = pick(
        rng, std::vector<uint32_t>{cls::Domain, cls::Domain, cls::Node, cls::Node, cls::Check,
                                   cls::Check, cls::CheckGroup, cls::NodeInfoGroup, cls::Plan,
                                   cls::WeekPlanner, cls::ExpectedEvent, cls::NotificationJob});
    dbms::Tql_Create_Data request;
    request.parent_id = place_for(rng, class_number);
    const bool again = last_number_ > 0 && rng.chance(5);
    request.new_id = {7,
                      again ? 1 + static_cast<uint32_t>(rng.below(last_number_)) : ++last_number_};
    request.class_ = class_number;
    const bool under_node = request.parent_id.size() == 3 && request.parent_id[2] == 0;
    request.properties = start_values(rng, class_number, under_node);
    tqlengine::RequestContext context = store.context();
    const uint32_t status = tqlengine::process_create(request, context).status;
    if (status == errors::ERR_SUCCESS) {
        Known& made = known_[request.new_id] = {request.parent_id, class_number, {}};
        note_values(made, request.properties);
    }
    return told(fmt::format("create {} {} under {}", tql::class_name(class_number),
                            request.new_id.to_string(), request.parent_id.to_string()),
                status);
}

/// Where an object of this class may stand; at times it may not.
tql::id_t World::place_for(support::Rng& rng, uint32_t class_number) const {
    const auto of_class = [&](uint32_t parent_class) { return random_id(rng, parent_class); };
    const auto group = [&](uint32_t place) {
        tql::id_t id = of_class(cls::Node);
        if (id.size() == 2) id.push_back(place);
        return id;
    };
    switch (class_number) {
        case cls::CheckGroup:
            return rng.chance(60) ? group(1) : of_class(cls::CheckGroup);
        case cls::Check:
            return rng.chance(30) ? group(0) : of_class(cls::CheckGroup);
        case cls::NodeInfoGroup:
            return of_class(rng.chance(60) ? cls::Node : cls::NodeInfoGroup);
        case cls::Plan:
            return of_class(rng.chance(60) ? cls::Domain : cls::Node);
        case cls::WeekPlanner:
        case cls::ExpectedEvent:
            return of_class(cls::Plan);
        default:
            return of_class(cls::Domain);
    }
}

World::Values World::start_values(support::Rng& rng, uint32_t class_number, bool under_node) {
    Values values;
    const auto add = [&](tql::value_t value) { values.push_back(std::move(value)); };
    switch (class_number) {
        case cls::Check:
            if (under_node) {
                add(choice(prop::remoteType, rng.chance(50) ? 1 : 6));
                add(text(prop::remoteName, random_name(rng)));
                if (rng.chance(50)) add(number(prop::port, 80));
                break;
            }
            add(choice(prop::checkType, static_cast<uint32_t>(rng.below(4))));
            add(flag(prop::active, rng.chance(50)));
            [[fallthrough]];
        case cls::CheckGroup:
            add(text(prop::agentId, rng.chance(10) ? "proc" : random_name(rng)));
            add(text(prop::name, random_name(rng)));
            break;
        case cls::NodeInfoGroup:
            add(text(prop::tag, random_name(rng)));
            break;
        case cls::ExpectedEvent:
            add(date(prop::startTime, static_cast<int64_t>(rng.below(10))));
            add(date(prop::endTime, static_cast<int64_t>(10 + rng.below(10))));
            break;
        case cls::NotificationJob:
            add(number(prop::alertNotifySerial, static_cast<uint32_t>(rng.below(100))));
            add(object(prop::path, random_id(rng)));
            add(choice(prop::method, 1));
            add(choice(prop::alertNotifyJobType, 0));
            add(date(prop::transmissionDue, 0));
            add(object(prop::alertNotifyNode, random_id(rng)));
            add(object(prop::alertNotifyObject, random_id(rng)));
            break;
        default:
            add(text(prop::name, random_name(rng)));
    }
    if (can_inherit(class_number) && rng.chance(40)) {
        const tql::id_t parent = random_id(rng, class_number);
        if (!parent.empty()) add(object(prop::inherits, parent));
    }
    if (rng.chance(15)) add(object(prop::masterId, random_id(rng)));
    return values;
}

tql::value_t World::random_value(support::Rng& rng, uint32_t class_number) {
    if (rng.chance(8)) {
        if (rng.chance(50)) return object(prop::masterId, random_id(rng));
        return std::make_unique<tql::property_object_t>(
            tql::property_object_t::null(prop::masterId));
    }
    switch (class_number) {
        case cls::Domain:
        case cls::Node: {
            const uint32_t property =
                pick(rng, std::vector<uint32_t>{prop::name, prop::label, prop::comment,
                                                prop::infoUrl, prop::dependsOn});
            if (property != prop::dependsOn) return text(property, random_name(rng));
            return std::make_unique<tql::property_object_set_t>(
                property, std::set<tql::id_t>{random_id(rng), random_id(rng)});
        }
        case cls::CheckGroup:
            return text(rng.chance(50) ? prop::name : prop::agentId, random_name(rng));
        case cls::Check:
            if (rng.chance(40)) return flag(prop::active, rng.chance(50));
            return text(rng.chance(50) ? prop::comment : prop::label, random_name(rng));
        case cls::NodeInfoGroup:
            return text(prop::label, random_name(rng));
        case cls::WeekPlanner:
        case cls::ExpectedEvent:
            if (rng.chance(40)) {
                const tql::id_t parent = random_id(rng, class_number);
                if (!parent.empty() && rng.chance(60)) return object(prop::inherits, parent);
                return std::make_unique<tql::property_object_t>(
                    tql::property_object_t::null(prop::inherits));
            }
            if (class_number == cls::WeekPlanner) return text(prop::name, random_name(rng));
            return rng.chance(50) ? text(prop::comment, random_name(rng))
                                  : flag(prop::active, rng.chance(50));
        case cls::NotificationJob:
            return rng.chance(50) ? object(prop::alertNotifyObject, random_id(rng))
                                  : number(prop::attemptNo, static_cast<uint32_t>(rng.below(5)));
        default:
            return text(prop::name, random_name(rng));
    }
}

std::string World::change(const char* what, const tql::id_t& id, Values values) {
    dbms::Tql_Update_Data request;
    request.id = id;
    request.version = store.engine->get(id)->tqlVersion();
    request.properties = std::move(values);
    tqlengine::RequestContext context = store.context();
    const uint32_t status = tqlengine::process_update(request, context).status;
    if (status == errors::ERR_SUCCESS) note_values(known_.at(id), request.properties);
    std::string all = fmt::format("{} {}:", what, id.to_string());
    for (const tql::value_t& value : request.properties)
        all += fmt::format(" {}={}", tql::property_name(value->property),
                           value->is_null ? "null" : value->print());
    return told(all, status);
}

std::string World::update(support::Rng& rng) {
    const tql::id_t id = random_known(rng, [](const Known&) { return true; });
    Values values;
    values.push_back(random_value(rng, known_.at(id).class_number));
    if (rng.chance(20)) values.push_back(random_value(rng, known_.at(id).class_number));
    return change("update", id, std::move(values));
}

std::string World::move(support::Rng& rng) {
    const tql::id_t id = random_known(rng, [&](const Known& known) {
        return known.class_number != cls::NodeInfoGroup && !known.parent.empty();
    });
    if (id.empty()) return update(rng);
    const uint32_t class_number = known_.at(id).class_number;
    const tql::id_t parent = random_known(rng, [&](const Known& known) {
        const std::vector<uint32_t> below = classes_below(known.class_number);
        return std::find(below.begin(), below.end(), class_number) != below.end();
    });
    if (parent.empty()) return update(rng);
    Values values;
    values.push_back(object(prop::parentId, parent));
    const uint64_t refused = refused_;
    std::string what = change("move", id, std::move(values));
    if (refused == refused_) known_.at(id).parent = parent;
    return what;
}

std::string World::remove(support::Rng& rng) {
    // Mostly leaves, so that the tree doesn't vanish.
    const auto is_leaf = [&](const tql::id_t& id) {
        return std::none_of(known_.begin(), known_.end(), [&](const auto& entry) {
            return entry.first != id && is_below(entry.first, id);
        });
    };
    tql::id_t id = random_known(rng, [](const Known& known) { return !known.parent.empty(); });
    for (int tries = 0; tries < 3 && !id.empty() && !is_leaf(id); ++tries)
        id = random_known(rng, [](const Known& known) { return !known.parent.empty(); });
    if (id.empty()) return create(rng);
    dbms::Tql_Delete_Data request;
    request.id = id;
    request.version = store.engine->get(id)->tqlVersion();
    tqlengine::RequestContext context = store.context();
    const uint32_t status = tqlengine::process_delete(request, context).status;
    if (status == errors::ERR_SUCCESS) forget(id);
    return told("delete " + id.to_string(), status);
}

// ---- the record --------------------------------------------------------------------------------

tql::id_t World::random_known(support::Rng& rng,
                              const std::function<bool(const Known&)>& fits) const {
    std::vector<tql::id_t> ids;
    for (const auto& [id, known] : known_)
        if (fits(known)) ids.push_back(id);
    return ids.empty() ? tql::id_t() : pick(rng, ids);
}

tql::id_t World::random_id(support::Rng& rng) const {
    if (rng.chance(5)) return {7, 1'000'000};
    tql::id_t id = random_known(rng, [](const Known&) { return true; });
    const uint32_t class_number = known_.at(id).class_number;
    if (class_number == cls::Node && rng.chance(15))
        id.push_back(static_cast<uint32_t>(rng.below(3)));
    return id;
}

tql::id_t World::random_id(support::Rng& rng, uint32_t class_number) const {
    return random_known(rng, [&](const Known& one) { return one.class_number == class_number; });
}

/// Those which nothing but a write to the object itself changes.
void World::note_values(Known& known, const Values& values) {
    const bool inherits = can_inherit(known.class_number);
    for (const tql::value_t& value : values) {
        const uint32_t property = value->property;
        if (property == prop::parentId || property == prop::port || property == prop::dependsOn)
            continue;
        if (inherits && property != prop::inherits && property != prop::masterId) continue;
        known.values[property] = value->is_null ? "null" : value->print();
    }
}

bool World::is_below(tql::id_t id, const tql::id_t& above) const {
    while (!id.empty() && id != above) {
        const auto found = known_.find(tql::id_t(id[0], id[1]));
        if (found == known_.end()) return false;
        if (found->first == above) return true;
        id = found->second.parent;
    }
    return id == above;
}

void World::forget(const tql::id_t& id) {
    std::map<tql::id_t, Known> left;
    for (const auto& [each, known] : known_)
        if (!is_below(each, id)) left.emplace(each, known);
    known_ = std::move(left);
}

std::string World::difference(const SeenTree& tree, bool with_values) {
    size_t stored = 0;
    for (const auto& [id, way] : tree.ways()) {
        if (!way.back()->is_stored()) continue;
        ++stored;
        const auto found = known_.find(id);
        if (found == known_.end()) return id.to_string() + " should be gone";
        const Known& known = found->second;
        tql::id_t above = way.size() > 1 ? way[way.size() - 2]->tqlId() : tql::id_t();
        // A check moved to a node stands in one of its groups.
        if (known.parent.size() == 2 && above.size() == 3) above = {above[0], above[1]};
        if (above != known.parent)
            return fmt::format("{} stands under {} instead of {}", id.to_string(),
                               above.to_string(), known.parent.to_string());
        if (!with_values) continue;
        const tql::property_map_t& values = way.back()->values();
        for (const auto& [property, expected] : known.values) {
            const auto value = values.find(property);
            const std::string there = value == values.end()    ? "nothing"
                                      : value->second->is_null ? "null"
                                                               : value->second->print();
            if (there != expected)
                return fmt::format("{} of {} is {} instead of {}", tql::property_name(property),
                                   id.to_string(), there, expected);
        }
    }
    return stored == known_.size() ? "" : fmt::format("{} objects of {}", stored, known_.size());
}

}  // namespace queries
