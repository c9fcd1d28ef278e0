#include "dbcache/schema/check_schema.h"

#include <fmt/format.h>

#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/object_view.h"
#include "dbcache/schema/name_format.h"
#include "dbcache/special_kinds.h"
#include "dbcache/time_series.h"
#include "log/log.h"
#include "mdb/property_types.h"
#include "tql/names.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

using StoredEnum = mdb::PropertyEnum<enum_value_t>;

template <class Property>
std::optional<Property> own(const PropertyChain& chain, uint32_t number) {
    Property property(number);
    if (chain.read(0, property) != found_t::value) return std::nullopt;
    return property;
}

/// The names on the way down to an object, and the format in which its groups want them.
struct NameList {
    std::vector<std::string> names;
    std::string format{kCheckNameFormat};
};

void add_place(const PropertyChain& place, NameList& list);

void add_parent(const PropertyChain& chain, NameList& list) {
    chain.visit_object(own_object(chain, prop::parentId),
                       [&](const PropertyChain& parent) { add_place(parent, list); });
}

/// The name that a group has in long labels.
std::string group_name(const PropertyChain& group) {
    const NodeId mib = own_object(group, prop::mibObject);
    return mib.is_null() ? own_text(group, prop::name) : text_of(group, mib, prop::name);
}

void add_place(const PropertyChain& place, NameList& list) {
    const uint32_t number = static_cast<uint32_t>(own<PropertyNodeType>(place, prop::nodeType)
                                                      .value_or(PropertyNodeType(prop::nodeType))
                                                      .value);
    const uint32_t place_class = tql::find_nodetype_class(number).value_or(cls::kCount);
    if (place_class == cls::Node) return;
    error::check(place_class == cls::CheckGroup, "get_name_list_and_format encountered {}",
                 tql::class_name(place_class));
    add_parent(place, list);
    list.names.push_back(group_name(place));
    if (std::string format = own_text(place, prop::checkNameFormat); !format.empty())
        list.format = std::move(format);
}

NameList names_above(const PropertyChain& chain, const std::string& name) {
    NameList list;
    add_parent(chain, list);
    list.names.push_back(name);
    return list;
}

}  // namespace

// ---- single values -----------------------------------------------------------------------------

std::string own_text(const PropertyChain& chain, uint32_t number) {
    auto found = own<mdb::PropertyString>(chain, number);
    return found ? std::move(found->value) : std::string();
}

std::optional<uint32_t> own_number(const PropertyChain& chain, uint32_t number) {
    const auto found = own<mdb::PropertyUint32>(chain, number);
    return found ? std::optional<uint32_t>(found->value) : std::nullopt;
}

std::optional<uint32_t> own_enum(const PropertyChain& chain, uint32_t number) {
    const auto found = own<StoredEnum>(chain, number);
    return found ? std::optional<uint32_t>(static_cast<uint32_t>(found->value)) : std::nullopt;
}

bool own_flag(const PropertyChain& chain, uint32_t number) {
    const auto found = own<mdb::PropertyBool>(chain, number);
    return found && found->value;
}

NodeId own_object(const PropertyChain& chain, uint32_t number) {
    const auto found = own<mdb::PropertyNodeId>(chain, number);
    return found ? found->value : NodeId{};
}

std::string own_oid(const PropertyChain& chain, uint32_t number) {
    const auto found = own<mdb::PropertySnmpOid>(chain, number);
    return found ? fmt::format("{}", fmt::join(found->value, ".")) : std::string();
}

std::string text_of(const PropertyChain& chain, const NodeId& id, uint32_t number) {
    std::string text;
    chain.visit_object(id, [&](const PropertyChain& object) { text = own_text(object, number); });
    return text;
}

std::string oid_of(const PropertyChain& chain, const NodeId& id, uint32_t number) {
    std::string text;
    chain.visit_object(id, [&](const PropertyChain& object) { text = own_oid(object, number); });
    return text;
}

const work_t* find_work(const NodetypeSchema& schema, const WorkArray& work, uint32_t number,
                        uint32_t subtype) {
    const auto index = schema.lookupProperty(number, subtype);
    return index && !work[*index].is_null() ? &work[*index] : nullptr;
}

bool flag_in(const NodetypeSchema& schema, const WorkArray& work, uint32_t number,
             uint32_t subtype) {
    const work_t* value = find_work(schema, work, number, subtype);
    return value != nullptr && static_cast<const mdb::PropertyBool&>(*value->prop).value;
}

uint32_t subtype_enum_in(const NodetypeSchema& schema, const WorkArray& work, uint32_t number) {
    const work_t* value = find_work(schema, work, number);
    if (value == nullptr) fail_null(number);
    return static_cast<uint32_t>(static_cast<const StoredEnum&>(*value->prop).value);
}

NodeId subtype_object_in(const NodetypeSchema& schema, const WorkArray& work, uint32_t number) {
    const work_t* value = find_work(schema, work, number);
    if (value == nullptr) fail_null(number);
    return static_cast<const mdb::PropertyNodeId&>(*value->prop).value;
}

void fail_null(uint32_t number) {
    fail_illegal_value("Null given for property " + tql::property_name(number));
}

void fail_invalid(uint32_t number) {
    fail_illegal_value("Invalid value for property " + tql::property_name(number));
}

// ---- labels ------------------------------------------------------------------------------------

bool wants_labels(const tql::pattern_t& pattern) {
    return pattern.wants(prop::siblingName) || pattern.wants(prop::treeLabel) ||
           pattern.wants(prop::longLabel);
}

std::string labelled(const std::string& label, const std::string& name) {
    return label.empty() ? name : label + " (" + name + ")";
}

std::string check_long_label(const PropertyChain& chain, const std::string& name) {
    const NameList list = names_above(chain, name);
    try {
        return format_names(list.format, list.names);
    } catch (const errors::format& fault) {
        // The format is a client's; one bad format must not make a whole group unreadable.
        if (list.format != kCheckNameFormat)
            logger.warning("Warning: Name format \"{}\" of the group of {}: {}", list.format, name,
                           fault.text());
        // A check without a group has too few names for the usual format.
        return format_names(kGroupNameFormat, list.names);
    }
}

std::string group_long_label(const PropertyChain& chain, const std::string& name) {
    return format_names(kGroupNameFormat, names_above(chain, name).names);
}

// ---- the base ----------------------------------------------------------------------------------

const CheckSchema::Layout* CheckSchema::stored_layout(const PropertyChain& chain) const {
    const uint32_t type = type_property() == 0 ? 0 : own_enum(chain, type_property()).value_or(0);
    return layout(subtypeFromChain(chain), type);
}

void CheckSchema::encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                                 const tql::pattern_t& pattern, tql::property_map_t& out) const {
    if (wants_labels(pattern)) {
        const Labels made = labels(chain);
        add_labels(pattern, out, siblingName(chain).value_or(""), made.tree, made.long_label);
    }
    if (pattern.wants(prop::hasInherits))
        tql::add<tql::property_boolean_t>(out, prop::hasInherits, chain.hasParent(), kComputed);
    if (pattern.wants(prop::isContinuous) || pattern.wants(prop::supportsMultiCheck)) {
        // A multi check adds up values; only measured values can be added.
        const bool continuous = stored_layout(chain) == &continuous_layout();
        for (const uint32_t number : {prop::isContinuous, prop::supportsMultiCheck})
            if (pattern.wants(number))
                tql::add<tql::property_boolean_t>(out, number, continuous, kComputed);
    }
    if (pattern.wants(prop::unit) && !lookupProperty(prop::unit, subtypeFromChain(chain))) {
        std::vector<uint8_t> unit = computed_unit(chain);
        if (!unit.empty())
            tql::add<tql::property_blob_t>(out, prop::unit, std::move(unit), kComputed);
    }
}

void CheckSchema::afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& /*context*/,
                              WorkArray& work) const {
    const uint32_t own_subtype = subtype(ObjectView(handler), work);
    const uint32_t type = type_property() == 0 ? 0 : subtype_enum_in(*this, work, type_property());
    const Layout* made_as = layout(own_subtype, type);
    before_series(work, own_subtype);
    const bool recorded = made_as != nullptr && flag_in(*this, work, prop::active);
    // A series of another layout takes no data of the new kind, for ever.
    if (recorded && handler.is_stored()) {
        const InheritanceChain before(handler.store(), handler.node_id(), handler.location());
        if (stored_layout(before) != made_as)
            allocate_if(handler, false, prop::tsdbIndex, nullptr, work);
    }
    allocate_if(handler, recorded, prop::tsdbIndex, made_as, work);
    const bool foreseen = flag_in(*this, work, prop::forecastEnabled, own_subtype);
    allocate_if(handler, recorded && foreseen, prop::tsdbForecast, &continuous_layout(), work);
}

uint32_t CheckSchema::tsdbGetDataType(const PropertyChain& chain, uint32_t property) const {
    if (property == prop::tsdbForecast) return kContinuousData;
    const Layout* made_as = stored_layout(chain);
    if (made_as == &continuous_layout()) return kContinuousData;
    if (made_as == &enumerated_layout()) return kEnumeratedData;
    if (made_as == &uptime_layout()) return kUptimeData;
    if (made_as == &large_incident_layout()) return kIncidentData;
    return TableSchema::tsdbGetDataType(chain, property);
}

void CheckSchema::getUse(const WorkArray& work, UseMap& use) const {
    use.clear();
    if (flag_in(*this, work, prop::active)) use[counter_] = 1;
}

}  // namespace dbcache
