#include "tarmik/tree_census.h"

#include <algorithm>
#include <fmt/format.h>

#include "dbcache/fixed_ids.h"
#include "dbcache/stored_tree.h"
#include "mdb/errors.h"
#include "mdb/property_types.h"
#include "tql/names.h"

namespace cli {

namespace {

constexpr uint32_t kCounters[] = {prop::countNetChecks,        prop::countAgentChecks,
                                  prop::countSnmpChecks,       prop::countNodes,
                                  prop::countAgentCheckNodes,  prop::countNetCheckNodes,
                                  prop::countSnmpCheck10Nodes, prop::countSnmpCheckInfNodes,
                                  prop::countAgentLimitNodes,  prop::countEsxiNodes,
                                  prop::countEsxiChecks};

constexpr uint32_t kTellingCounters[] = {prop::countNetChecks, prop::countAgentLimitNodes,
                                         prop::countEsxiNodes, prop::countEsxiChecks};

class TreeCensus final : public mdb::ObjectCheck {
  public:
    explicit TreeCensus(TreeFigures& figures) : figures_(figures) {}

    void see(const mdb::dobj& object, mdb::FaultReport& /*report*/) override {
        try {
            count(object);
        } catch (const mdb::error_generic&) {
            // A record that can't be read is a fault of the verification itself.
        }
    }

    void finish(mdb::FaultReport& /*report*/) override {
        if (figures_.waiting_tombstones != 0) figures_.detached = count_below(waiting_);
    }

  private:
    struct Edge {
        NodeId parent;
        NodeId id;
    };

    void count(const mdb::dobj& object) {
        const auto id = dbcache::find_value<mdb::PropertyNodeId>(object, prop::id);
        if (!id) return;
        const NodeId parent =
            dbcache::find_value<mdb::PropertyNodeId>(object, prop::parentId).value_or(NodeId{});
        edges_.push_back({parent, *id});
        if (parent == dbcache::kFinishedTombstones) ++figures_.kept_tombstones;
        if (parent == dbcache::kFreshTombstones) {
            ++figures_.waiting_tombstones;
            waiting_.push_back(*id);
        }
        count_mark(object, prop::activeMark, *id, figures_.active);
        count_mark(object, prop::inheritsMark, *id, figures_.inherits);
        if (is_active(object)) figures_.active.has_candidates = true;
        if (dbcache::find_value<mdb::PropertyNodeId>(object, prop::inherits))
            figures_.inherits.has_candidates = true;
        if (*id != dbcache::kRootId) return;
        figures_.has_root = true;
        for (const uint32_t number : kCounters)
            if (const auto counter = dbcache::find_value<mdb::PropertyCount>(object, number))
                figures_.root_counters[number] = static_cast<uint32_t>(*counter);
    }

    /// A check that should be in the list of active objects.
    static bool is_active(const mdb::dobj& object) {
        const auto type = dbcache::find_value<dbcache::PropertyNodeType>(object, prop::nodeType);
        if (!type) return false;
        switch (static_cast<uint32_t>(*type)) {
            case nodetype::NetCheck:
                return true;
            case nodetype::AgentCheck:
            case nodetype::SnmpCheck:
            case nodetype::EsxiCheck:
                return dbcache::find_value<mdb::PropertyBool>(object, prop::active).value_or(false);
            default:
                return false;
        }
    }

    static void count_mark(const mdb::dobj& object, uint32_t mark, const NodeId& id,
                           TreeFigures::MarkList& list) {
        const auto links = dbcache::find_value<mdb::PropertyMarkIndex>(object, mark);
        if (!links) return;
        ++(links->marked ? list.marked : list.linked);
        list.exists = list.exists || id == dbcache::kRootId;
    }

    /// Objects below the tops. Ends, should damage make a ring.
    uint64_t count_below(std::vector<NodeId> tops) {
        const auto by_parent = [](const Edge& a, const Edge& b) { return a.parent < b.parent; };
        std::sort(edges_.begin(), edges_.end(), by_parent);
        uint64_t count = 0;
        while (!tops.empty() && count <= edges_.size()) {
            const NodeId top = tops.back();
            tops.pop_back();
            const auto [begin, end] =
                std::equal_range(edges_.begin(), edges_.end(), Edge{top, {}}, by_parent);
            for (auto edge = begin; edge != end; ++edge) tops.push_back(edge->id);
            count += static_cast<uint64_t>(end - begin);
        }
        return count;
    }

    TreeFigures& figures_;
    std::vector<Edge> edges_;
    std::vector<NodeId> waiting_;
};

}  // namespace

bool TreeFigures::lacks_counters() const {
    return !std::all_of(std::begin(kTellingCounters), std::end(kTellingCounters),
                        [&](uint32_t number) { return root_counters.contains(number); });
}

std::vector<std::string> TreeFigures::remarks() const {
    std::vector<std::string> all;
    if (!has_root) {
        all.emplace_back("There is no root object; the next start makes it.");
        return all;
    }
    for (const auto& [list, what] :
         {std::pair{&active, "active"}, std::pair{&inherits, "inheriting"}})
        if (list->is_missing())
            all.push_back(
                fmt::format("There is no list of {} objects; the next start builds it.", what));
    if (lacks_counters())
        all.emplace_back("The root lacks counters; the next start works them out.");
    if (waiting_tombstones != 0)
        all.push_back(fmt::format(
            "The next start goes on removing the {} objects below deleted ones.", detached));
    return all;
}

std::unique_ptr<mdb::ObjectCheck> make_tree_census(TreeFigures& figures) {
    return std::make_unique<TreeCensus>(figures);
}

}  // namespace cli
