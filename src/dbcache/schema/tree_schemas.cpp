#include "dbcache/schema/tree_schemas.h"

#include "dbcache/accounting.h"
#include "dbcache/schema/agent_config.h"
#include "dbcache/time_series.h"
#include "mdb/property_types.h"
#include "tql/enumerations.h"
#include "tql/names.h"

namespace dbcache {

namespace {

constexpr uint32_t kAlertGroup[] = {cls::AlertGroup};
constexpr uint32_t kNodeClass[] = {cls::NodeClass};
constexpr uint32_t kDependable[] = {cls::Domain, cls::Node, cls::Check, cls::CheckAccumulation};
constexpr uint32_t kNodeSubtypes[] = {0, 1};

// clang-format off
constexpr PropertyRow kDomainRows[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X, .null_value = NodeId{}},
    {.number = prop::name, .kind = kind_t::identifier, .flags = K},
    {.number = prop::label, .kind = kind_t::string},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::alertGroup, .kind = kind_t::object, .flags = N},
    {.number = prop::comment, .kind = kind_t::marl, .flags = N},
    {.number = prop::dependsOn, .kind = kind_t::object_set, .flags = X},
    {.number = prop::stationLocale, .kind = kind_t::gid, .flags = N},
    {.number = prop::countEsxiChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::countNetChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::countAgentChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::countSnmpChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::countNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countNetCheckNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countAgentCheckNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countSnmpCheck10Nodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countSnmpCheckInfNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countLeechingStations, .kind = kind_t::count, .flags = R},
    {.number = prop::countAgentLimitNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countEsxiNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::activeMark, .kind = kind_t::mark, .flags = X | R},
    {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R},
};

constexpr ChildRow kDomainChildren[] = {
    {cls::Domain, nodetype::Domain},
    {cls::Node, nodetype::Node},
    {cls::Report, nodetype::Report},
    {cls::User, nodetype::User},
    {cls::View, nodetype::View},
    {cls::AlertGroup, nodetype::AlertGroup},
    {cls::MibObject, nodetype::MibObject},
    {cls::MibModule, nodetype::MibModule},
    {cls::Plan, nodetype::Plan},
    {cls::NodeClass, nodetype::NodeClass},
    {cls::NetworkScan, nodetype::NetworkScan},
    {cls::GridConfig, nodetype::GridConfig},
    {cls::ClusterConfig, nodetype::ClusterConfig},
    {cls::QuickLink, nodetype::QuickLink},
    {cls::NodeClassConflict, nodetype::NodeClassConflict},
    {cls::MountPoint, nodetype::MountPoint},
    {cls::DomainExport, nodetype::DomainExport},
    {cls::NotificationJob, nodetype::NotificationJob},
    {cls::CandidateNode, nodetype::CandidateNode},
    {cls::ReportText, nodetype::DomainReportText},
    {cls::GraphicalView, nodetype::GraphicalView},
};

constexpr PropertyRow kNodeRows[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X, .null_value = NodeId{}},
    {.number = prop::name, .kind = kind_t::icase_string, .flags = K},
    {.number = prop::keyPrime, .kind = kind_t::big_number, .flags = N | X},
    {.number = prop::keyGenerator, .kind = kind_t::big_number, .flags = N | X},
    {.number = prop::keySession, .kind = kind_t::string, .flags = N | X},
    {.number = prop::sessionKeyExpire, .kind = kind_t::date, .flags = N | X},
    {.number = prop::keySecret, .kind = kind_t::big_number, .flags = N | X},
    {.number = prop::releaseKey, .kind = kind_t::action, .flags = X, .subtypes = kNodeSubtypes},
    {.number = prop::clearUpgrade, .kind = kind_t::action, .flags = X},
    {.number = prop::nodeClasses, .kind = kind_t::object_set, .flags = X, .classes = kNodeClass},
    {.number = prop::label, .kind = kind_t::string},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::comment, .kind = kind_t::marl, .flags = N},
    {.number = prop::warn, .kind = kind_t::i32, .initial = 200},
    {.number = prop::warnCeiling, .kind = kind_t::i32, .initial = 300},
    {.number = prop::alert, .kind = kind_t::i32, .initial = 1000},
    {.number = prop::alertCeiling, .kind = kind_t::i32, .initial = 1100},
    {.number = prop::checkinFrequency, .kind = kind_t::u32, .flags = N, .initial = 30, .low = 1, .high = 86400},
    {.number = prop::checkinScore, .kind = kind_t::i32, .initial = -5},
    {.number = prop::missedCheckinScore, .kind = kind_t::i32, .initial = 10},
    {.number = prop::snmpPort, .kind = kind_t::u32, .initial = 161},
    {.number = prop::snmpCommunity, .kind = kind_t::string, .initial = "public"},
    {.number = prop::snmpVersion, .kind = kind_t::enumeration, .initial = 0, .enumeration = tql::enumeration::SnmpVersion},
    {.number = prop::esxiEndPoint, .kind = kind_t::string, .initial = "sdk"},
    {.number = prop::esxiPort, .kind = kind_t::u32, .initial = 443},
    {.number = prop::esxiPassword, .kind = kind_t::string, .flags = N},
    {.number = prop::esxiUser, .kind = kind_t::string},
    {.number = prop::alertGroup, .kind = kind_t::object, .flags = N, .classes = kAlertGroup},
    {.number = prop::alertStrategy, .kind = kind_t::enumeration, .initial = 0, .enumeration = tql::enumeration::AlertStrategy},
    {.number = prop::acknowledgeAlerts, .kind = kind_t::boolean},
    {.number = prop::lastAcknowledge, .kind = kind_t::date, .flags = N | X},
    {.number = prop::dependsOn, .kind = kind_t::object_set, .flags = X, .classes = kDependable},
    {.number = prop::stationLocale, .kind = kind_t::gid, .flags = N},
    {.number = prop::countNetChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::countAgentChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::countSnmpChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::countEsxiChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
    {.number = prop::resetScore, .kind = kind_t::action, .flags = X},
    {.number = prop::resetAllScores, .kind = kind_t::action, .flags = X},
    {.number = prop::activeMark, .kind = kind_t::mark, .flags = X | R},
    {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R},
};

constexpr ChildRow kNodeChildren[] = {
    {cls::NodeInfoGroup, nodetype::NodeInfoGroup},
    {cls::NodeView, nodetype::NodeView},
    {cls::Plan, nodetype::Plan},
    {cls::AlertPathUsage, nodetype::AlertPathUsage},
    {cls::NodeAgentStatus, nodetype::NodeAgentStatus},
    {cls::SnmpScan, nodetype::SnmpScan},
    {cls::EsxiScan, nodetype::EsxiScan},
};

constexpr ChildRow kNetChecks[] = {{cls::Check, nodetype::NetCheck}, {cls::MultiCheck, nodetype::NetMultiCheck}};
constexpr ChildRow kAgentChecks[] = {{cls::CheckGroup, nodetype::AgentCheckGroup}, {cls::MultiCheck, nodetype::AgentMultiCheck}};
constexpr ChildRow kSnmpChecks[] = {{cls::CheckGroup, nodetype::SnmpCheckGroup}, {cls::MultiCheck, nodetype::SnmpMultiCheck}};
constexpr ChildRow kEsxiChecks[] = {{cls::CheckGroup, nodetype::EsxiRootCheckGroup}, {cls::MultiCheck, nodetype::EsxiMultiCheck}};

constexpr GroupRow kNodeGroups[] = {
    {0, cls::CheckGroup, kNetChecks, "netchecks", "NetChecks", "NetChecks on "},
    {1, cls::CheckGroup, kAgentChecks, "agentchecks", "AgentChecks", "AgentChecks on "},
    {2, cls::CheckGroup, kSnmpChecks, "snmpchecks", "snmpChecks", "snmpChecks on "},
    {3, cls::CheckGroup, kEsxiChecks, "esxichecks", "esxiChecks", "esxiChecks on "},
};

constexpr PropertyRow kNodeInfoGroupRows[] = {
    {.number = prop::tag, .kind = kind_t::string, .flags = K},
    {.number = prop::label, .kind = kind_t::string, .flags = N},
    {.number = prop::order, .kind = kind_t::u32, .flags = N},
};

constexpr ChildRow kNodeInfoGroupChildren[] = {
    {cls::NodeInfoGroup, nodetype::NodeInfoGroup},
    {cls::NodeInfoLine, nodetype::NodeInfoLine},
};

constexpr PropertyRow kNodeInfoLineRows[] = {
    {.number = prop::tag, .kind = kind_t::string},
    {.number = prop::label, .kind = kind_t::string},
    {.number = prop::text, .kind = kind_t::string},
    {.number = prop::order, .kind = kind_t::u32, .flags = K},
};
// clang-format on

/// The name, or the label with the name in parentheses when there is a label.
void add_named_labels(const NodetypeSchema& schema, const PropertyChain& chain,
                      const tql::pattern_t& pattern, tql::property_map_t& out) {
    if (!pattern.wants(prop::siblingName) && !pattern.wants(prop::treeLabel) &&
        !pattern.wants(prop::longLabel))
        return;
    const std::string name = read_text(chain, schema, prop::name);
    const std::string label = read_text(chain, schema, prop::label);
    const std::string shown = label.empty() ? name : label + " (" + name + ")";
    add_labels(pattern, out, name, shown, shown);
}

/// The four counters of a node and what decides on its class, with the changes of `difference`.
NodeCounts node_counts(const NodetypeSchema& schema, const WorkArray& work,
                       const UseMap& difference = {}) {
    const auto value = [&](uint32_t number) -> const work_t& {
        return work[schema.findProperty(number, kAllSubtypes)];
    };
    const auto count = [&](uint32_t number) {
        const work_t& stored = value(number);
        const uint32_t before =
            stored.is_null() ? 0 : static_cast<const mdb::PropertyCount&>(*stored.prop).value;
        const auto change = difference.find(number);
        return change == difference.end() ? before : add_to_counter(before, change->second);
    };
    const work_t& key = value(prop::keySecret);
    return {.net_checks = count(prop::countNetChecks),
            .agent_checks = count(prop::countAgentChecks),
            .snmp_checks = count(prop::countSnmpChecks),
            .esxi_checks = count(prop::countEsxiChecks),
            .has_key = !key.is_null() &&
                       !static_cast<const mdb::PropertyBigNum&>(*key.prop).value.is_zero()};
}

}  // namespace

DomainSchema::DomainSchema()
    : TableSchema({.nodetype = nodetype::Domain,
                   .tql_class = cls::Domain,
                   .origin_type = 0,
                   .properties = kDomainRows,
                   .children = kDomainChildren,
                   .sibling_name = prop::name}) {}

void DomainSchema::encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                                  const tql::pattern_t& pattern, tql::property_map_t& out) const {
    add_named_labels(*this, chain, pattern, out);
}

void DomainSchema::account(const SchemaObject& /*object*/, const WorkArray& /*work*/,
                           UseMap& /*use*/) const {}

NodeSchema::NodeSchema()
    : TableSchema({.nodetype = nodetype::Node,
                   .tql_class = cls::Node,
                   .origin_type = 1,
                   .properties = kNodeRows,
                   .children = kNodeChildren,
                   .groups = kNodeGroups,
                   .sibling_name = prop::name,
                   .suggestion = {"template", "Add Node"}}) {}

void NodeSchema::encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                                const tql::pattern_t& pattern, tql::property_map_t& out) const {
    add_named_labels(*this, chain, pattern, out);
}

void NodeSchema::afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& context,
                             WorkArray& work) const {
    allocate_when_possible(handler, prop::tsdbIncident, small_incident_layout(), work);
    touch_agent_config(handler, context);
}

void NodeSchema::getUse(const WorkArray& work, UseMap& use) const {
    use = node_use(node_counts(*this, work));
}

void NodeSchema::account(const SchemaObject& /*object*/, const WorkArray& work, UseMap& use) const {
    const UseMap before = node_use(node_counts(*this, work));
    const UseMap after = node_use(node_counts(*this, work, use));
    for (const auto& [counter, difference] : get_use_diff(before, after))
        add_use(use, counter, difference);
}

NodeInfoGroupSchema::NodeInfoGroupSchema()
    : TableSchema({.nodetype = nodetype::NodeInfoGroup,
                   .tql_class = cls::NodeInfoGroup,
                   .properties = kNodeInfoGroupRows,
                   .children = kNodeInfoGroupChildren,
                   .sibling_name = prop::tag}) {}

NodeInfoLineSchema::NodeInfoLineSchema()
    : OrderSiblingEncoder({.nodetype = nodetype::NodeInfoLine,
                           .tql_class = cls::NodeInfoLine,
                           .properties = kNodeInfoLineRows}) {}

}  // namespace dbcache
