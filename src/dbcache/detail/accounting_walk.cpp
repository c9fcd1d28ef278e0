#include "dbcache/detail/accounting_walk.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "dbcache/accounting.h"
#include "dbcache/object_handler.h"
#include "mdb/errors.h"
#include "mdb/property_types.h"
#include "tql/names.h"

namespace dbcache {

/// One of the trees of groups below a node: its groups, their checks, and what counts them.
struct AccountingWalk::GroupKind {
    std::array<uint32_t, 2> groups;
    uint32_t check;
    uint32_t counter;
    std::string_view name;

    [[nodiscard]] bool is_group(uint32_t nodetype) const {
        return std::find(groups.begin(), groups.end(), nodetype) != groups.end();
    }
};

namespace {

constexpr std::array kDomainCounters = {prop::countNetChecks,        prop::countAgentChecks,
                                        prop::countSnmpChecks,       prop::countNodes,
                                        prop::countAgentCheckNodes,  prop::countNetCheckNodes,
                                        prop::countSnmpCheck10Nodes, prop::countSnmpCheckInfNodes,
                                        prop::countAgentLimitNodes,  prop::countEsxiNodes,
                                        prop::countEsxiChecks};
constexpr std::array kNodeCounters = {prop::countNetChecks, prop::countAgentChecks,
                                      prop::countSnmpChecks, prop::countEsxiChecks};

template <size_t Count>
Counters zeros(const std::array<uint32_t, Count>& numbers) {
    Counters counters;
    for (const uint32_t number : numbers) counters[number] = 0;
    return counters;
}

void add(Counters& sum, const Counters& more) {
    for (const auto& [number, count] : more) sum[number] = add_to_counter(sum[number], count);
}

bool holds_counters(uint32_t type) {
    switch (type) {
        case nodetype::Domain:
        case nodetype::Node:
        case nodetype::AgentCheckGroup:
        case nodetype::SnmpCheckGroup:
        case nodetype::EsxiCheckGroup:
        case nodetype::EsxiRootCheckGroup:
            return true;
        default:
            return false;
    }
}

bool is_counted(uint32_t type) {
    switch (type) {
        case nodetype::MountPoint:
        case nodetype::NetCheck:
        case nodetype::AgentCheck:
        case nodetype::SnmpCheck:
        case nodetype::EsxiCheck:
            return true;
        default:
            return holds_counters(type);
    }
}

template <class Property>
auto value_of(const mdb::RecordView& record, mdb::block_handle_t place) {
    Property property(record.id());
    property.read_record(record, place);
    return property.value;
}

void take(CountedObject& object, const mdb::RecordView& record) {
    const uint32_t number = record.id();
    if (number == prop::id)
        object.id = value_of<mdb::PropertyNodeId>(record, object.place);
    else if (number == prop::parentId)
        object.parent = value_of<mdb::PropertyNodeId>(record, object.place);
    else if (number == prop::active)
        object.active = value_of<mdb::PropertyBool>(record, object.place);
    else if (!holds_counters(object.nodetype))
        return;
    else if (number == prop::keySecret)
        object.has_key = !value_of<mdb::PropertyBigNum>(record, object.place).is_zero();
    else if (number == prop::name)
        object.name = value_of<mdb::PropertyString>(record, object.place);
    else if (std::find(kDomainCounters.begin(), kDomainCounters.end(), number) !=
             kDomainCounters.end())
        object.stored[number] = value_of<mdb::PropertyCount>(record, object.place);
}

}  // namespace

std::string CountedObject::to_string() const {
    return name.empty() ? id.to_string() : fmt::format("{} ({})", name, id);
}

std::optional<CountedObject> read_counted_object(const mdb::dobj& stored) {
    // The sequence object and its like have no class.
    PropertyNodeType type(prop::nodeType);
    try {
        type.read(stored);
    } catch (const mdb::error_nullprop&) {
        return std::nullopt;
    }
    CountedObject object;
    object.nodetype = static_cast<uint32_t>(type.value);
    object.place = stored.handle();
    if (!is_counted(object.nodetype)) return std::nullopt;
    for (const mdb::RecordView record : mdb::ObjectRecords(stored))
        if (!record.is_null()) take(object, record);
    return object;
}

uint32_t stored_counter(const CountedObject& object, uint32_t number) {
    const auto counter = object.stored.find(number);
    return counter == object.stored.end() ? 0 : counter->second;
}

// ---- the walk ----------------------------------------------------------------------------------

/// An object whose children are being counted.
struct AccountingWalk::Open {
    CountedObject object;
    const GroupKind* kind = nullptr;  ///< of a group of checks
    Counters sum;
    std::vector<CountedObject> below;  ///< those with something below them, the last one next
};

AccountingWalk::AccountingWalk(Children children, Result result)
    : children_(std::move(children)), result_(std::move(result)) {}
AccountingWalk::~AccountingWalk() = default;

void AccountingWalk::run(const CountedObject& root) {
    enter(root);
    while (!way_.empty()) {
        if (way_.back().below.empty()) {
            leave();
            continue;
        }
        CountedObject next = std::move(way_.back().below.back());
        way_.back().below.pop_back();
        enter(std::move(next));
    }
}

void AccountingWalk::enter(CountedObject object) {
    // Only a wrong entry of the index leads to an object twice.
    if (!on_way_.insert(object.id).second)
        throw mdb::error_need_repair(
            fmt::format("Object {} is its own ancestor", object.id.to_string()));
    Open open;
    open.object = std::move(object);
    const uint32_t type = open.object.nodetype;
    open.kind = kind_of_group(type);
    if (type == nodetype::Domain)
        open.sum = zeros(kDomainCounters);
    else if (type == nodetype::Node)
        open.sum = zeros(kNodeCounters);
    else if (open.kind != nullptr)
        open.sum[open.kind->counter] = 0;
    children_(open.object.id, [&](const CountedObject& child) { meet(open, child); });
    std::reverse(open.below.begin(), open.below.end());
    way_.push_back(std::move(open));
}

/// Counts a child by itself, or keeps it for what is below it.
void AccountingWalk::meet(Open& open, const CountedObject& child) {
    const uint32_t type = child.nodetype;
    bool leads_on = false;
    switch (open.object.nodetype) {
        case nodetype::Domain:
            leads_on =
                type == nodetype::Domain || type == nodetype::Node || type == nodetype::MountPoint;
            break;
        case nodetype::MountPoint:
            leads_on = type == nodetype::Domain;
            break;
        case nodetype::Node:
            if (type == nodetype::NetCheck) ++open.sum[prop::countNetChecks];
            leads_on = kind_of_group(type) != nullptr;
            break;
        default:
            if (type == open.kind->check) open.sum[open.kind->counter] += child.active ? 1 : 0;
            leads_on = open.kind->is_group(type);
    }
    if (leads_on) open.below.push_back(child);
}

void AccountingWalk::leave() {
    const Open done = std::move(way_.back());
    way_.pop_back();
    on_way_.erase(done.object.id);
    if (done.object.nodetype == nodetype::MountPoint) return;
    result_(name_of(done), done.object, done.sum);
    if (way_.empty() || way_.back().object.nodetype == nodetype::MountPoint) return;
    add(way_.back().sum, done.sum);
    if (done.object.nodetype == nodetype::Node) add(way_.back().sum, use_of_node(done));
}

std::string_view AccountingWalk::name_of(const Open& open) {
    if (open.kind != nullptr) return open.kind->name;
    return open.object.nodetype == nodetype::Domain ? "domain" : "node";
}

/// What the node itself counts for in its domain.
Counters AccountingWalk::use_of_node(const Open& node) {
    const auto count = [&](uint32_t number) { return node.sum.at(number); };
    const UseMap use = node_use({.net_checks = count(prop::countNetChecks),
                                 .agent_checks = count(prop::countAgentChecks),
                                 .snmp_checks = count(prop::countSnmpChecks),
                                 .esxi_checks = count(prop::countEsxiChecks),
                                 .has_key = node.object.has_key});
    Counters counters;
    for (const auto& [number, value] : use) counters[number] = static_cast<uint32_t>(value);
    return counters;
}

const AccountingWalk::GroupKind* AccountingWalk::kind_of_group(uint32_t type) {
    static constexpr std::array<GroupKind, 3> kKinds = {
        {{{nodetype::AgentCheckGroup, nodetype::AgentCheckGroup},
          nodetype::AgentCheck,
          prop::countAgentChecks,
          "AgentCheckGroup"},
         {{nodetype::SnmpCheckGroup, nodetype::SnmpCheckGroup},
          nodetype::SnmpCheck,
          prop::countSnmpChecks,
          "SnmpCheckGroup"},
         {{nodetype::EsxiCheckGroup, nodetype::EsxiRootCheckGroup},
          nodetype::EsxiCheck,
          prop::countEsxiChecks,
          "EsxiCheckGroup"}}};
    const auto kind = std::find_if(kKinds.begin(), kKinds.end(),
                                   [&](const GroupKind& one) { return one.is_group(type); });
    return kind == kKinds.end() ? nullptr : &*kind;
}

}  // namespace dbcache
