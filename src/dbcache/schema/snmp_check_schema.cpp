#include "dbcache/schema/snmp_check_schema.h"

#include <array>

#include "dbcache/schema/check_rows.h"
#include "dbcache/schema/mib_schemas.h"
#include "dbcache/schema/name_format.h"
#include "dbcache/time_series.h"
#include "error/exception.h"
#include "mdb/property_types.h"

namespace dbcache {

namespace {

using namespace check_rows;

constexpr uint32_t kMibObject[] = {cls::MibObject};
constexpr uint32_t kTag[] = {cls::Tag};
constexpr uint32_t kContinuousOnly[] = {SnmpCheckSchema::kContinuous};
constexpr uint32_t kEnumeratedOnly[] = {SnmpCheckSchema::kEnumerated};
constexpr uint32_t kUptimeOnly[] = {SnmpCheckSchema::kUptime};
constexpr uint32_t kRowOnly[] = {SnmpCheckGroupSchema::kRow};
constexpr uint32_t kNoRow[] = {SnmpCheckGroupSchema::kWhole, SnmpCheckGroupSchema::kReserved};

/// The states are the values that the MIB names.
class SnmpStates final : public StateEnumeration {
  public:
    [[nodiscard]] bool exists(const PropertyChain& chain, uint32_t state) const override {
        bool found = false;
        chain.visit_children(own_object(chain, prop::mibObject), cls::MibTypeEnum,
                             [&](const PropertyChain& named) {
                                 mdb::PropertyInt32 value(prop::value);
                                 found = found || (named.read(0, value) == found_t::value &&
                                                   int64_t{value.value} == int64_t{state});
                             });
        return found;
    }
};
constinit const SnmpStates kSnmpStates;

// clang-format off
constexpr PropertyRow kSnmpCheckRows[] = {
    {.number = prop::mibObject, .kind = kind_t::object, .flags = K | C | X, .classes = kMibObject, .determines_subtype = true},
    kLabel,
    kActive,
    kFrequency,
    kStationLocale,
    {.number = prop::stateAction0, .kind = kind_t::state_action, .initial = 0, .states = &kSnmpStates, .subtypes = kEnumeratedOnly},
};

constexpr PropertyRow kSnmpCheckGroupRows[] = {
    {.number = prop::mibObject, .kind = kind_t::object, .flags = K | C | X, .classes = kMibObject, .determines_subtype = true},
    {.number = prop::snmpInstanceId, .kind = kind_t::oid, .flags = K | C, .determines_subtype = true},
    {.number = prop::tag, .kind = kind_t::non_empty_string, .flags = K | C, .subtypes = kRowOnly},
    {.number = prop::tag, .kind = kind_t::string, .subtypes = kNoRow},
    {.number = prop::manualTags, .kind = kind_t::object_set, .classes = kTag},
    {.number = prop::countSnmpChecks, .kind = kind_t::count, .flags = R},
};
// clang-format on

constexpr SharedRows kSnmpCheckShared[] = {{kCommon},
                                           {kForecast, kContinuousOnly},
                                           {kRealThresholds, kContinuousOnly},
                                           {kPreferred, kContinuousOnly},
                                           {kRealPlot, kContinuousOnly},
                                           {kRealBelow, kUptimeOnly}};
constexpr SharedRows kGroupShared[] = {{kMarksOnTheWay}};

constexpr ChildRow kSnmpCheckChildren[] = {
    {cls::Plan, nodetype::Plan},
    {cls::CheckAccumulation, nodetype::CheckAccumulation},
    {cls::AlertPathUsage, nodetype::AlertPathUsage},
    {cls::ForecastLock, nodetype::ForecastLock},
    {cls::ForecastModel, nodetype::ForecastModel},
    {cls::ActionConnection, nodetype::ActionConnection},
    {cls::EnumCheckTagRule, nodetype::EnumCheckTagRule},
};

constexpr ChildRow kSnmpCheckGroupChildren[] = {
    {cls::Check, nodetype::SnmpCheck},           {cls::CheckGroup, nodetype::SnmpCheckGroup},
    {cls::MultiCheck, nodetype::SnmpMultiCheck}, {cls::Tag, nodetype::Tag},
    {cls::TagRuleMatch, nodetype::TagRuleMatch},
};

constexpr auto kThresholdRules = threshold_rules(SnmpCheckSchema::kContinuous);
constexpr GreaterRow kSnmpCheckRules[] = {kThresholdRules[0],
                                          kThresholdRules[1],
                                          kThresholdRules[2],
                                          kThresholdRules[3],
                                          kThresholdRules[4],
                                          kThresholdRules[5],
                                          below_rule(SnmpCheckSchema::kUptime),
                                          plot_rule(SnmpCheckSchema::kContinuous)};

uint32_t subtype_of(uint32_t snmp_type) {
    switch (snmp_type) {
        case kSnmpEnumerated:
            return SnmpCheckSchema::kEnumerated;
        case kSnmpTimeTicks:
        case kSnmpTimeStamp:
            return SnmpCheckSchema::kUptime;
        default:
            return SnmpCheckSchema::kContinuous;
    }
}

/// OID and instance, as far as there are.
std::string full_oid(const std::string& oid, const std::string& instance) {
    return oid.empty() || instance.empty() ? oid + instance : oid + "." + instance;
}

}  // namespace

// ---- checks ------------------------------------------------------------------------------------

SnmpCheckSchema::SnmpCheckSchema()
    : CheckSchema({.nodetype = nodetype::SnmpCheck,
                   .tql_class = cls::Check,
                   .origin_type = kCheckOrigin,
                   .properties = kSnmpCheckRows,
                   .shared = kSnmpCheckShared,
                   .children = kSnmpCheckChildren,
                   .greater = kSnmpCheckRules},
                  prop::countSnmpChecks) {}

std::optional<std::string> SnmpCheckSchema::siblingName(const PropertyChain& chain) const {
    std::string instance;
    chain.visit_object(own_object(chain, prop::parentId), [&](const PropertyChain& group) {
        instance = own_oid(group, prop::snmpInstanceId);
    });
    return full_oid(oid_of(chain, own_object(chain, prop::mibObject), prop::snmpId), instance);
}

/// A check whose MIB object is gone counts as one of a measured value.
uint32_t SnmpCheckSchema::subtypeFromChain(const PropertyChain& chain) const {
    uint32_t found = kContinuous;
    chain.visit_object(own_object(chain, prop::mibObject), [&](const PropertyChain& mib) {
        found = subtype_of(own_enum(mib, prop::snmpType).value_or(0));
    });
    return found;
}

uint32_t SnmpCheckSchema::subtypeFromWork(const WorkArray& /*work*/) const {
    error::fail_assertion("SnmpCheckSchema::getSubtype() invoked without handler");
}

uint32_t SnmpCheckSchema::subtype(const SchemaObject& object, const WorkArray& work) const {
    uint32_t found = kContinuous;
    object.visit_object(subtype_object_in(*this, work, prop::mibObject),
                        [&](const PropertyChain& mib) {
                            found = subtype_of(own_enum(mib, prop::snmpType).value_or(0));
                        });
    return found;
}

const CheckSchema::Layout* SnmpCheckSchema::layout(uint32_t subtype, uint32_t /*type*/) const {
    switch (subtype) {
        case kContinuous:
            return &continuous_layout();
        case kEnumerated:
            return &enumerated_layout();
        case kUptime:
            return &uptime_layout();
        default:
            error::fail_assertion("Unhandled SNMP type");
    }
}

SnmpCheckSchema::Labels SnmpCheckSchema::labels(const PropertyChain& chain) const {
    const std::string name = text_of(chain, own_object(chain, prop::mibObject), prop::name);
    const std::string label = labelled(read_text(chain, *this, prop::label), name);
    const std::string tag = text_of(chain, own_object(chain, prop::parentId), prop::tag);
    return {label, tag.empty() ? label : label + " [" + tag + "]"};
}

std::vector<uint8_t> SnmpCheckSchema::computed_unit(const PropertyChain& chain) const {
    std::vector<uint8_t> bytes;
    chain.visit_object(own_object(chain, prop::mibObject), [&](const PropertyChain& mib) {
        mdb::PropertyBlob unit(prop::unit);
        if (mib.read(0, unit) == found_t::value) bytes = std::move(unit.value);
    });
    return bytes;
}

// ---- groups ------------------------------------------------------------------------------------

SnmpCheckGroupSchema::SnmpCheckGroupSchema()
    : TableSchema({.nodetype = nodetype::SnmpCheckGroup,
                   .tql_class = cls::CheckGroup,
                   .origin_type = kCheckOrigin,
                   .properties = kSnmpCheckGroupRows,
                   .shared = kGroupShared,
                   .children = kSnmpCheckGroupChildren}) {}

uint32_t SnmpCheckGroupSchema::subtypeFromChain(const PropertyChain& chain) const {
    return own_oid(chain, prop::snmpInstanceId).empty() ? kWhole : kRow;
}

uint32_t SnmpCheckGroupSchema::subtypeFromWork(const WorkArray& work) const {
    static_cast<void>(subtype_object_in(*this, work, prop::mibObject));
    const work_t* instance = find_work(*this, work, prop::snmpInstanceId);
    if (instance == nullptr) fail_null(prop::snmpInstanceId);
    const bool none = static_cast<const mdb::PropertySnmpOid&>(*instance->prop).value.empty();
    return none ? kWhole : kRow;
}

std::optional<std::string> SnmpCheckGroupSchema::siblingName(const PropertyChain& chain) const {
    const std::string oid =
        full_oid(oid_of(chain, own_object(chain, prop::mibObject), prop::snmpId),
                 own_oid(chain, prop::snmpInstanceId));
    const std::string tag = own_text(chain, prop::tag);
    return subtypeFromChain(chain) == kRow ? oid + ":" + tag : oid;
}

void SnmpCheckGroupSchema::encodeSpecials(const SchemaObject& /*object*/,
                                          const PropertyChain& chain, const tql::pattern_t& pattern,
                                          tql::property_map_t& out) const {
    if (!wants_labels(pattern)) return;
    const std::string tag = own_text(chain, prop::tag);
    const std::string suffix = tag.empty() ? "" : " [" + tag + "]";
    const std::string name =
        text_of(chain, own_object(chain, prop::mibObject), prop::name) + suffix;
    add_labels(pattern, out, siblingName(chain).value_or(""), name, group_long_label(chain, name));
}

void SnmpCheckGroupSchema::account(const SchemaObject& /*object*/, const WorkArray& /*work*/,
                                   UseMap& /*use*/) const {}

}  // namespace dbcache
