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

/// One level of the recursion, which needs a bound also where the stored tree has none.
class AccountingWalk::Level {
  public:
    Level(AccountingWalk& walk, const CountedObject& object) : depth_(walk.depth_) {
        if (depth_ >= kMaxTreeDepth)
            throw mdb::error_need_repair(
                fmt::format("Object {} stands deeper than {} objects", object.id, kMaxTreeDepth));
        ++depth_;
    }
    ~Level() { --depth_; }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;

  private:
    uint32_t& depth_;
};

Counters AccountingWalk::domain(const CountedObject& at) {
    const Level level(*this, at);
    Counters sum = zeros(kDomainCounters);
    children_(at.id, [&](const CountedObject& child) {
        if (child.nodetype == nodetype::Domain)
            add(sum, domain(child));
        else if (child.nodetype == nodetype::Node)
            add(sum, node(child));
        else if (child.nodetype == nodetype::MountPoint)
            mount_point(child);
    });
    result_("domain", at, sum);
    return sum;
}

void AccountingWalk::mount_point(const CountedObject& at) {
    const Level level(*this, at);
    children_(at.id, [&](const CountedObject& child) {
        if (child.nodetype == nodetype::Domain) static_cast<void>(domain(child));
    });
}

Counters AccountingWalk::node(const CountedObject& at) {
    const Level level(*this, at);
    Counters sum = zeros(kNodeCounters);
    children_(at.id, [&](const CountedObject& child) {
        if (child.nodetype == nodetype::NetCheck)
            ++sum[prop::countNetChecks];
        else if (const GroupKind* kind = kind_of_group(child.nodetype))
            sum[kind->counter] += group(child, *kind);
    });
    result_("node", at, sum);
    const UseMap use = node_use({.net_checks = sum[prop::countNetChecks],
                                 .agent_checks = sum[prop::countAgentChecks],
                                 .snmp_checks = sum[prop::countSnmpChecks],
                                 .esxi_checks = sum[prop::countEsxiChecks],
                                 .has_key = at.has_key});
    for (const auto& [number, count] : use) sum[number] = static_cast<uint32_t>(count);
    return sum;
}

uint32_t AccountingWalk::group(const CountedObject& at, const GroupKind& kind) {
    const Level level(*this, at);
    uint32_t sum = 0;
    children_(at.id, [&](const CountedObject& child) {
        if (child.nodetype == kind.check)
            sum += child.active ? 1 : 0;
        else if (kind.is_group(child.nodetype))
            sum += group(child, kind);
    });
    result_(kind.name, at, {{kind.counter, sum}});
    return sum;
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
