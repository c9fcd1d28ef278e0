#include "dbcache/nodetype_schema.h"

#include <algorithm>
#include <fmt/format.h>

#include "dbcache/detail/metrics.h"
#include "dbcache/mark_index.h"
#include "dbcache/property_kinds.h"
#include "dbcache/sibling_key.h"
#include "dbcache/special_kinds.h"
#include "dbcache/time_series.h"
#include "error/exception.h"
#include "tql/names.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

/// Keeps the list ascending and without doubles.
void insert_number(std::vector<uint32_t>& numbers, uint32_t number) {
    const auto place = std::lower_bound(numbers.begin(), numbers.end(), number);
    if (place == numbers.end() || *place != number) numbers.insert(place, number);
}

std::pair<uint32_t, uint32_t> key_of(const NodetypeSchema::Entry& entry) {
    return {entry.property, entry.subtype};
}

struct BaseProperty {
    uint32_t number;
    enum { id, version, number_u32 } form;
};

/// What every object has, for its life as a copy of another server's object.
constexpr BaseProperty kBaseProperties[] = {
    {prop::masterId, BaseProperty::id},           {prop::copyVersion, BaseProperty::version},
    {prop::masterVersion, BaseProperty::version}, {prop::masterBuild, BaseProperty::number_u32},
    {prop::slaveBuild, BaseProperty::number_u32},
};

std::shared_ptr<PropertySchema> make_base_property(const BaseProperty& base) {
    constexpr uint32_t flags = kNullable | kNoInheritance;
    std::shared_ptr<PropertySchema> made;
    switch (base.form) {
        case BaseProperty::id:
            made = std::make_shared<PropertyForeignIdSchema>(base.number, flags);
            made->kind = "foreign id";
            break;
        case BaseProperty::version:
            made = std::make_shared<PropertyVersionSchema>(base.number, flags);
            made->kind = "version";
            break;
        case BaseProperty::number_u32:
            made = std::make_shared<PropertyUI32Schema>(base.number, flags);
            made->kind = "u32";
            break;
    }
    return made;
}

}  // namespace

NodetypeSchema::NodetypeSchema(uint32_t nodetype_number, uint32_t class_number,
                               uint32_t origin_type_number)
    : nodetype(nodetype_number), tql_class(class_number), origin_type(origin_type_number) {
    for (const BaseProperty& base : kBaseProperties) addPropertySchema(make_base_property(base));
}

std::string NodetypeSchema::class_name() const {
    return tql::class_name(tql_class);
}

// ---- declaring ---------------------------------------------------------------------------------

void NodetypeSchema::addPropertySchema(std::shared_ptr<PropertySchema> schema, uint32_t subtype,
                                       bool determines_subtype) {
    Entry entry{schema->property, subtype, determines_subtype, std::move(schema)};
    const auto place =
        std::lower_bound(properties_.begin(), properties_.end(), key_of(entry),
                         [](const Entry& one, const auto& key) { return key_of(one) < key; });
    error::check(place == properties_.end() || key_of(*place) != key_of(entry),
                 "Property schema registered twice");
    const uint32_t number = entry.property;
    if (dynamic_cast<const PropertyCountSchema*>(entry.schema.get()) != nullptr)
        insert_number(counter_properties_, number);
    if (dynamic_cast<const PropertyLobSchema*>(entry.schema.get()) != nullptr)
        insert_number(large_object_properties_, number);
    properties_.insert(place, std::move(entry));
}

void NodetypeSchema::addPropertySchemaSpecialization(uint32_t number, uint32_t subtype,
                                                     uint32_t first_subtype,
                                                     uint32_t last_subtype) {
    const auto position = [&](uint32_t wanted) {
        return std::find_if(properties_.begin(), properties_.end(), [&](const Entry& entry) {
            return entry.property == number && entry.subtype == wanted;
        });
    };
    if (const auto generic = position(kAllSubtypes); generic != properties_.end()) {
        error::check(!generic->determines_subtype,
                     "Cannot specialize properties used to determine subtype");
        const std::shared_ptr<PropertySchema> shared = generic->schema;
        auto at = properties_.erase(generic);
        for (uint32_t one = first_subtype; one <= last_subtype; ++one)
            at = properties_.insert(at, Entry{number, one, false, shared}) + 1;
    }
    const auto own = position(subtype);
    error::check(own != properties_.end(), "Internal error in addPropertySchemaSpecialization");
    error::check(!own->determines_subtype,
                 "Cannot specialize properties used to determine subtype");
    properties_.erase(own);
    check_sorted();
}

void NodetypeSchema::check_sorted() const {
    const bool sorted =
        std::is_sorted(properties_.begin(), properties_.end(),
                       [](const Entry& a, const Entry& b) { return key_of(a) < key_of(b); });
    error::check(sorted, "Properties not sorted after specialization");
}

void NodetypeSchema::addChildClass(uint32_t child_class, uint32_t child_nodetype) {
    child_classes_[child_class] = child_nodetype;
    direct_children_.insert(child_nodetype);
    all_children_.insert(child_nodetype);
}

void NodetypeSchema::addGroup(int32_t group_id, uint32_t group_class) {
    groups_[group_id].tql_class = group_class;
}

void NodetypeSchema::addGroupChild(uint32_t child_class, int32_t group_id,
                                   uint32_t child_nodetype) {
    const auto group = groups_.find(group_id);
    error::check(group != groups_.end(), "No group with ID {}", group_id);
    group->second.child_classes[child_class] = child_nodetype;
    group->second.children.insert(child_nodetype);
    group_of_child_[child_nodetype] = group_id;
    // A class that stands in several groups is created through the group; the entry here names one.
    child_classes_.emplace(child_class, child_nodetype);
    all_children_.insert(child_nodetype);
}

void NodetypeSchema::addRestriction(uint32_t property_1, uint32_t property_2, uint32_t subtype,
                                    std::function<bool(const work_t&, const work_t&)> holds,
                                    std::string message) {
    restrictions_.push_back(
        {property_1, property_2, subtype, std::move(holds), std::move(message)});
}

void NodetypeSchema::keep_children(const std::function<bool(uint32_t)>& known) {
    const auto drop_classes = [&](std::map<uint32_t, uint32_t>& classes) {
        std::erase_if(classes, [&](const auto& child) { return !known(child.second); });
    };
    const auto drop = [&](std::set<uint32_t>& nodetypes) {
        std::erase_if(nodetypes, [&](uint32_t child) { return !known(child); });
    };
    drop_classes(child_classes_);
    drop(direct_children_);
    drop(all_children_);
    for (auto& [id, group] : groups_) {
        drop_classes(group.child_classes);
        drop(group.children);
    }
    std::erase_if(group_of_child_, [&](const auto& child) { return !known(child.first); });
}

// ---- looking up --------------------------------------------------------------------------------

std::optional<size_t> NodetypeSchema::lookupProperty(uint32_t number,
                                                     uint32_t subtype) const noexcept {
    const auto begin = std::lower_bound(
        properties_.begin(), properties_.end(), number,
        [](const Entry& entry, uint32_t wanted) { return entry.property < wanted; });
    for (auto entry = begin; entry != properties_.end() && entry->property == number; ++entry)
        if (entry->applies_to(subtype)) return static_cast<size_t>(entry - properties_.begin());
    return std::nullopt;
}

size_t NodetypeSchema::findProperty(uint32_t number, uint32_t subtype) const {
    const std::optional<size_t> index = lookupProperty(number, subtype);
    if (!index)
        throw errors::tql(errors::ERR_NO_SUCH_PROPERTY,
                          fmt::format("Unknown property \"{}\"", tql::property_name(number)));
    return *index;
}

bool NodetypeSchema::has_marks() const noexcept {
    return std::any_of(properties_.begin(), properties_.end(),
                       [](const Entry& entry) { return is_mark(entry.property); });
}

std::optional<size_t> NodetypeSchema::subtypeProperty(uint32_t number) const noexcept {
    const std::optional<size_t> index = lookupProperty(number, kAllSubtypes);
    return index && properties_[*index].determines_subtype ? index : std::nullopt;
}

bool NodetypeSchema::is_large_object(uint32_t number, uint32_t subtype) const noexcept {
    const std::optional<size_t> index = lookupProperty(number, subtype);
    return index &&
           dynamic_cast<const PropertyLobSchema*>(properties_[*index].schema.get()) != nullptr;
}

std::optional<int32_t> NodetypeSchema::group_of_child(uint32_t child_nodetype) const {
    const auto group = group_of_child_.find(child_nodetype);
    if (group == group_of_child_.end()) return std::nullopt;
    return group->second;
}

// ---- validation --------------------------------------------------------------------------------

void NodetypeSchema::validate(const SchemaObject& object, const PropertyChain& /*chain*/,
                              WorkArray& work, const NodeId& new_parent) const {
    const uint32_t parent = object.parent_class(new_parent);
    const bool has_parent = parent != SchemaObject::kNoParent;
    if (has_parent && is_singleton_under(parent)) check_primary_key(object, work, {}, new_parent);

    const uint32_t own_subtype = subtype(object, work);
    std::vector<size_t> keys;
    for (size_t i = 0; i < properties_.size(); ++i)
        if (properties_[i].schema->has(kPrimaryKey) && properties_[i].applies_to(own_subtype))
            keys.push_back(i);
    const auto is_null = [&](size_t i) { return work[i].is_null(); };
    if (keys.empty() || std::any_of(keys.begin(), keys.end(), is_null) || !has_parent) return;
    check_primary_key(object, work, keys, new_parent);
    check_restrictions(object, work, own_subtype);
}

void NodetypeSchema::check_primary_key(const SchemaObject& object, const WorkArray& work,
                                       const std::vector<size_t>& keys,
                                       const NodeId& new_parent) const {
    const meter::TimingScope timing(detail::metrics::primary_key_time, object.clock());
    SiblingKey key(key_classes_);
    for (const size_t i : keys) key.add(*properties_[i].schema, work[i]);
    if (const std::optional<NodeId> sibling = object.find_equal_sibling(new_parent, key))
        fail_exists(*sibling, "Duplicate value given for primary key");
}

void NodetypeSchema::check_restrictions(const SchemaObject& object, const WorkArray& work,
                                        uint32_t own_subtype) const {
    for (const Restriction& rule : restrictions_) {
        if (rule.subtype != kAllSubtypes && rule.subtype != own_subtype) continue;
        const std::optional<size_t> first = lookupProperty(rule.property_1, own_subtype);
        const std::optional<size_t> second = lookupProperty(rule.property_2, own_subtype);
        const auto shown = [](const std::optional<size_t>& index) {
            return index ? static_cast<int64_t>(*index) : -1;
        };
        if (!first || !second)
            fail_illegal_value(fmt::format(
                "Object {} couldn't lookup mutual restrictions on properties: {} and {} where "
                "restriction subtype is {} idx1 {} idx2 {}",
                object.node_id().to_string(), tql::property_name(rule.property_1),
                tql::property_name(rule.property_2), rule.subtype, shown(first), shown(second)));
        if (!rule.holds(work[*first], work[*second])) fail_illegal_value(rule.message);
    }
}

// ---- hooks that do nothing by themselves
// ---------------------------------------------------------

std::optional<std::string> NodetypeSchema::siblingName(const PropertyChain& /*chain*/) const {
    return std::nullopt;
}

void NodetypeSchema::encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                                    const tql::pattern_t& pattern, tql::property_map_t& out) const {
    if (!pattern.wants(prop::siblingName)) return;
    if (const std::optional<std::string> name = siblingName(chain))
        tql::add<tql::property_string_t>(out, prop::siblingName, *name, kComputed);
}

void NodetypeSchema::encodeGroupSpecials(const PropertyChain& /*chain*/, int32_t /*group_id*/,
                                         const tql::pattern_t& /*pattern*/,
                                         tql::property_map_t& /*out*/) const {}

void NodetypeSchema::encodeTemplateSpecials(const SchemaObject* /*parent*/,
                                            const TemplateValues& /*values*/,
                                            const tql::pattern_t& /*pattern*/,
                                            tql::property_map_t& /*out*/) const {}

bool NodetypeSchema::childrenHook(ObjectHandler& /*handler*/, const tql::pattern_t& /*pattern*/,
                                  tqlengine::HandlerList& /*out*/) const {
    return false;
}

void NodetypeSchema::listTemplates(const SchemaObject& /*parent*/,
                                   std::vector<TemplateValues>& /*out*/) const {}

void NodetypeSchema::listChildTemplates(const TemplateValues& /*parent*/,
                                        std::vector<TemplateValues>& /*out*/) const {}

void NodetypeSchema::afterUpdate(ObjectHandler& /*handler*/, tqlengine::RequestContext& /*context*/,
                                 WorkArray& /*work*/) const {}

void NodetypeSchema::afterStore(ObjectHandler& /*handler*/) const {}

void NodetypeSchema::beforeDelete(ObjectHandler& /*handler*/) const {}

tql::origin_t NodetypeSchema::tqlOrigin(const SchemaObject& object) const {
    std::optional<tql::origin_t> origin = object.parent_origin();
    error::check(origin.has_value(), "Object {} has no parent in NodetypeSchema::tqlOrigin",
                 object.node_id());
    if (origin_type != kParentsOrigin) origin->type = origin_type;
    return *origin;
}

uint32_t NodetypeSchema::tsdbGetDataType(const PropertyChain& /*chain*/, uint32_t property) const {
    if (property == prop::tsdbIncident && lookupProperty(property, kAllSubtypes))
        return kIncidentData;
    throw errors::db_anomaly(
        "tsdbGetDataType called on object which does not implement tsdbGetDataType");
}

uint32_t NodetypeSchema::subtypeFromChain(const PropertyChain& /*chain*/) const {
    return 0;
}

uint32_t NodetypeSchema::subtypeFromWork(const WorkArray& /*work*/) const {
    return 0;
}

uint32_t NodetypeSchema::subtype(const SchemaObject& /*object*/, const WorkArray& work) const {
    return subtypeFromWork(work);
}

void NodetypeSchema::getUse(const WorkArray& /*work*/, UseMap& use) const {
    use.clear();
}

void NodetypeSchema::account(const SchemaObject& /*object*/, const WorkArray& /*work*/,
                             UseMap& use) const {
    error::check(use.empty(), "Accounting not implemented for nodetype {}", nodetype);
}

bool SingletonIfChildOfMountPointSchema::is_singleton_under(uint32_t parent_class) const {
    return parent_class == cls::MountPoint;
}

}  // namespace dbcache
