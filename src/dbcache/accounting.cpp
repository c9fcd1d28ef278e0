#include "dbcache/accounting.h"

#include <fmt/format.h>
#include <limits>

#include "dbcache/group_handler.h"
#include "dbcache/object_view.h"
#include "dbcache/special_kinds.h"
#include "log/log.h"
#include "mdb/object_store.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "util/cycle_check.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

/// A node with a key and no more agent checks than this has its own class.
constexpr uint32_t kAgentLimit = 5;
/// The same for a node without a key and its SNMP checks.
constexpr uint32_t kSnmpLimit = 10;

/// The difference `sum` as an entry of a map.
int32_t checked(int64_t sum, const char* overflow) {
    error::check(
        sum >= std::numeric_limits<int32_t>::min() && sum <= std::numeric_limits<int32_t>::max(),
        "{}", overflow);
    return static_cast<int32_t>(sum);
}

void drop_zeros(UseMap& use) {
    std::erase_if(use, [](const auto& entry) { return entry.second == 0; });
}

uint32_t stored_count(const work_t& work) {
    return work.is_null() ? 0 : static_cast<const mdb::PropertyCount&>(*work.prop).value;
}

/// The object to which `handler`'s object gives its differences; empty where they end.
ObjectHandlerRef counting_parent(ObjectHandler& handler) {
    if (handler.nodetype() == nodetype::MountPoint) return {};
    tqlengine::HandlerRef parent = handler.tqlParentHandler();
    while (dynamic_cast<GroupHandler*>(parent.get()) != nullptr)
        parent = parent->tqlParentHandler();
    if (!parent) return {};
    auto* const object = dynamic_cast<ObjectHandler*>(parent.get());
    if (object == nullptr)
        throw errors::tql(errors::ERR_BACKEND,
                          fmt::format("Unknown parent class {} in accountParent",
                                      tql::class_name(parent->class_number())));
    if (object->nodetype() == nodetype::MountPoint) return {};
    return ObjectHandlerRef(object);
}

/// Index of the counter `number` in the object's class.
size_t find_counter(const ObjectHandler& handler, uint32_t number) {
    const NodetypeSchema& schema = handler.schema();
    const std::optional<size_t> index = schema.lookupProperty(number, handler.subtype());
    if (!index) {
        const std::string name = tql::property_name(number);
        logger.debug("Attempted accounting update of unknown property {} in class {}", name,
                     schema.class_name());
        throw errors::tql(errors::ERR_NO_SUCH_PROPERTY,
                          fmt::format("Attempted accounting update of unknown property {} in "
                                      "class {}",
                                      name, schema.class_name()));
    }
    if (dynamic_cast<PropertyCountSchema*>(schema.properties()[*index].schema.get()) == nullptr)
        throw errors::tql(errors::ERR_NO_SUCH_PROPERTY,
                          fmt::format("Attempted accounting update of property \"{}\" of wrong "
                                      "type",
                                      tql::property_name(number)));
    return *index;
}

/// An object whose counters change.
struct Counting {
    ObjectHandlerRef object;
    std::vector<mdb::PropertyCount> counters;  ///< as they are to be
};

/// The counters that `diff` changes; `work` is what the object holds.
std::vector<mdb::PropertyCount> counters_after(const ObjectHandler& handler, const WorkArray& work,
                                               const UseMap& diff) {
    std::vector<mdb::PropertyCount> counters;
    for (const auto& [number, difference] : diff) {
        const uint32_t before = stored_count(work[find_counter(handler, number)]);
        counters.emplace_back(number, add_to_counter(before, difference));
    }
    return counters;
}

/// The ancestors that count `diff`, from `handler`'s parent up.
std::vector<Counting> counting_ancestors(ObjectHandler& handler, UseMap diff) {
    std::vector<Counting> way;
    util::CycleCheck ring(handler.node_id());
    for (ObjectHandler* at = &handler; !diff.empty(); at = way.back().object.get()) {
        ObjectHandlerRef parent = counting_parent(*at);
        if (!parent) break;
        if (ring.closes_at(parent->node_id())) tqlengine::fail_own_ancestor(parent->tqlId());
        const WorkArray work = parent->load_values();
        UseMap above = diff;
        parent->schema().account(ObjectView(*parent), work, above);
        std::vector<mdb::PropertyCount> counters = counters_after(*parent, work, diff);
        way.push_back({std::move(parent), std::move(counters)});
        diff = std::move(above);
    }
    return way;
}

}  // namespace

// ---- what is counted ---------------------------------------------------------------------------

std::optional<uint32_t> node_class_counter(const NodeCounts& counts) {
    if (counts.has_key)
        return counts.agent_checks > kAgentLimit ? prop::countAgentCheckNodes
                                                 : prop::countAgentLimitNodes;
    if (counts.snmp_checks > kSnmpLimit) return prop::countSnmpCheckInfNodes;
    if (counts.snmp_checks > 0) return prop::countSnmpCheck10Nodes;
    if (counts.net_checks > 0) return prop::countNetCheckNodes;
    return std::nullopt;
}

UseMap node_use(const NodeCounts& counts) {
    UseMap use{{prop::countNodes, 1}};
    if (const auto counter = node_class_counter(counts)) use[*counter] = 1;
    if (counts.esxi_checks > 0) use[prop::countEsxiNodes] = 1;
    return use;
}

// ---- arithmetic --------------------------------------------------------------------------------

uint32_t add_to_counter(uint32_t counter, int64_t difference) {
    const int64_t sum = counter + difference;
    error::check(sum >= 0 && sum <= std::numeric_limits<uint32_t>::max(), "Overflow");
    return static_cast<uint32_t>(sum);
}

void add_use(UseMap& use, uint32_t counter, int64_t difference) {
    int32_t& entry = use[counter];
    entry = checked(entry + difference, "Overflow");
}

UseMap get_use(const ObjectHandler& handler, const WorkArray& work) {
    const NodetypeSchema& schema = handler.schema();
    UseMap use;
    schema.getUse(work, use);
    if (schema.counter_properties().empty()) return use;
    const uint32_t subtype = schema.subtypeFromWork(work);
    for (const uint32_t number : schema.counter_properties())
        if (const auto index = schema.lookupProperty(number, subtype))
            add_use(use, number, stored_count(work[*index]));
    drop_zeros(use);
    return use;
}

UseMap get_use_diff(const UseMap& before, const UseMap& after) {
    UseMap diff = after;
    for (const auto& [number, value] : before)
        diff[number] = checked(int64_t{diff[number]} - value, "Overflow in get_use_diff");
    drop_zeros(diff);
    return diff;
}

// ---- the way up --------------------------------------------------------------------------------

std::unique_ptr<StoreTransaction> accountParent(ObjectHandler& handler, const UseMap& diff) {
    std::vector<Counting> way = counting_ancestors(handler, diff);
    auto transaction = std::make_unique<StoreTransaction>(handler.store());
    for (; !way.empty(); way.pop_back())  // the top first
        way.back().object->rewrite_records([&](mdb::ObjectStore& objects, mdb::dobj& image) {
            for (const mdb::PropertyCount& counter : way.back().counters)
                objects.update_property(image, counter, true, false);
        });
    return transaction;
}

}  // namespace dbcache
