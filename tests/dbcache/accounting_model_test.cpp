// Counters under thousands of random creates, updates, moves and deletes, beside a plain recount of
// a model of the tree.
#include <gtest/gtest.h>

#include "counted_classes.h"
#include "support/rng.h"

using namespace dbcache_test;
using dbcache::kRootId;

namespace {

enum class kind_t { domain, mount_point, node, group, check };

struct Thing {
    NodeId parent;
    kind_t kind = kind_t::domain;
    node_group_t group = net_group;
    /// Directly below a node.
    bool in_node = false;
    bool active = false;
    bool has_key = false;
    std::vector<NodeId> children;
};

struct Sums {
    std::map<uint32_t, uint64_t> counters;
    [[nodiscard]] uint64_t of(uint32_t number) const {
        const auto found = counters.find(number);
        return found == counters.end() ? 0 : found->second;
    }
};

constexpr uint32_t kCheckCounters[] = {prop::countNetChecks, prop::countAgentChecks,
                                       prop::countSnmpChecks, prop::countEsxiChecks};

class Model {
  public:
    Model(uint64_t seed, bool deep) : rng_(seed), deep_(deep) { things_[kRootId] = {}; }

    /// A batch is one transaction, and some are aborted.
    void run(int batches) {
        for (int i = 1; i <= batches; ++i) {
            const bool aborted = rng_.chance(15);
            const std::map<NodeId, Thing> before = things_;
            {
                dbcache::StoreTransaction batch(*tree_.world.store);
                for (int operation = 0; operation < kBatch; ++operation) step();
                if (!aborted) batch.commit(true);
            }
            if (aborted) things_ = before;
            if (aborted || i % (100 / kBatch) == 0) check_all();
            if (i % 41 == 0) tree_.world.open();
            if (testing::Test::HasFailure()) FAIL() << "in batch " << i;
        }
        check_all();
    }

  private:
    // ---- the recount ----------------------------------------------------------------------------

    Sums recount(const NodeId& id, std::map<NodeId, Sums>& all) {
        const Thing& thing = things_.at(id);
        Sums sums;
        for (const NodeId& child : thing.children) {
            const Sums below = recount(child, all);
            if (thing.kind != kind_t::mount_point)
                for (const auto& [number, count] : below.counters) sums.counters[number] += count;
        }
        all[id] = sums;
        if (thing.kind == kind_t::check && (thing.active || thing.group == net_group))
            sums.counters[kCheckCounters[thing.group]] = 1;
        if (thing.kind == kind_t::node) {
            sums.counters[prop::countNodes] = 1;
            if (const uint32_t number = class_of(thing, sums)) sums.counters[number] = 1;
            if (sums.of(prop::countEsxiChecks) > 0) sums.counters[prop::countEsxiNodes] = 1;
        }
        return sums;
    }
    static uint32_t class_of(const Thing& node, const Sums& sums) {
        if (node.has_key)
            return sums.of(prop::countAgentChecks) > 5 ? prop::countAgentCheckNodes
                                                       : prop::countAgentLimitNodes;
        if (sums.of(prop::countSnmpChecks) > 10) return prop::countSnmpCheckInfNodes;
        if (sums.of(prop::countSnmpChecks) > 0) return prop::countSnmpCheck10Nodes;
        return sums.of(prop::countNetChecks) > 0 ? prop::countNetCheckNodes : 0;
    }
    void check_all() {
        std::map<NodeId, Sums> all;
        recount(kRootId, all);
        for (const auto& [id, sums] : all) {
            const Thing& thing = things_.at(id);
            if (thing.kind == kind_t::check || thing.kind == kind_t::mount_point) continue;
            std::string expected;
            for (const auto& [number, count] : sums.counters)
                if (count > 0)
                    expected += fmt::format("{}{}={}", expected.empty() ? "" : " ",
                                            tql::property_name(number), count);
            ASSERT_EQ(tree_.counters(id), expected) << "object " << id.to_string();
        }
        ASSERT_EQ(tree_.fault(), "");
    }

    // ---- the operations -------------------------------------------------------------------------

    void step() {
        const uint64_t what = rng_.below(100);
        if (what < 45)
            create();
        else if (what < 65)
            update();
        else if (what < 90)
            move();
        else
            remove();
    }

    template <class Wanted>
    std::optional<NodeId> pick(const Wanted& wanted) {
        std::vector<NodeId> found;
        for (const auto& [id, thing] : things_)
            if (wanted(id, thing)) found.push_back(id);
        if (found.empty()) return std::nullopt;
        return found[rng_.below(found.size())];
    }

    void create() {
        const NodeId parent = *pick([&](const NodeId&, const Thing& thing) {
            return thing.kind != kind_t::check &&
                   !(thing.kind == kind_t::mount_point && !thing.children.empty());
        });
        const Thing& above = things_.at(parent);
        Thing made;
        made.parent = parent;
        made.group = above.group;
        NodeId id;
        switch (above.kind) {
            case kind_t::domain: {
                const uint64_t what = rng_.below(10);
                made.kind = what < 5   ? kind_t::node
                            : what < 9 ? kind_t::domain
                                       : kind_t::mount_point;
                id = made.kind == kind_t::node     ? tree_.node(parent)
                     : made.kind == kind_t::domain ? tree_.domain(parent)
                                                   : tree_.mount_point(parent);
                break;
            }
            case kind_t::mount_point:
                id = tree_.domain(parent);
                break;
            case kind_t::node:
                made.group = static_cast<node_group_t>(rng_.below(4));
                made.kind = made.group == net_group ? kind_t::check : kind_t::group;
                made.in_node = true;
                made.active = rng_.chance(60);
                id = tree_.in_node(parent, made.group, made.active);
                break;
            default:
                // The groups directly below a node hold no checks where ESX is concerned.
                made.kind =
                    (above.group == esxi_group && above.in_node) || rng_.chance(deep_ ? 50 : 10)
                        ? kind_t::group
                        : kind_t::check;
                made.active = rng_.chance(60);
                id = made.kind == kind_t::group ? tree_.group(parent, made.group)
                                                : tree_.check(parent, made.active);
        }
        things_[id] = made;
        things_[parent].children.push_back(id);
    }

    void update() {
        const auto id = pick([](const NodeId&, const Thing& thing) {
            return thing.kind == kind_t::check || thing.kind == kind_t::node;
        });
        if (!id) return;
        Thing& thing = things_.at(*id);
        if (thing.kind == kind_t::check) {
            thing.active = rng_.chance(50);
            tree_.set_active(*id, thing.active);
        } else {
            thing.has_key = rng_.chance(50);
            tree_.set_key(*id, thing.has_key     ? std::optional<uint32_t>(7)
                               : rng_.chance(50) ? std::optional<uint32_t>(0)
                                                 : std::nullopt);
        }
    }

    [[nodiscard]] bool is_below(NodeId id, const NodeId& top) const {
        for (;; id = things_.at(id).parent) {
            if (id == top) return true;
            if (id == kRootId) return false;
        }
    }
    /// A second domain below a mount point is refused; of the rest the places that the class has.
    [[nodiscard]] bool may_stand(const NodeId& id, const NodeId& parent) const {
        const Thing& thing = things_.at(id);
        const Thing& above = things_.at(parent);
        if (is_below(parent, id)) return false;
        switch (thing.kind) {
            case kind_t::domain:
                return above.kind == kind_t::domain ||
                       (above.kind == kind_t::mount_point && above.children.empty());
            case kind_t::mount_point:
            case kind_t::node:
                return above.kind == kind_t::domain;
            default:
                break;
        }
        if (thing.kind == kind_t::check && thing.group == net_group)
            return above.kind == kind_t::node;
        const bool same_group = above.kind == kind_t::group && above.group == thing.group;
        if (thing.kind == kind_t::check)
            return same_group && !(thing.group == esxi_group && above.in_node);
        // Groups of ESX are of two classes, one for the place below a node.
        if (thing.group == esxi_group)
            return thing.in_node ? above.kind == kind_t::node : same_group;
        return same_group || above.kind == kind_t::node;
    }
    void move() {
        const auto id = pick([](const NodeId& one, const Thing&) { return one != kRootId; });
        if (!id) return;
        const auto to = pick([&](const NodeId& one, const Thing&) { return may_stand(*id, one); });
        if (!to) return;
        tree_.move(*id, *to);
        Thing& thing = things_.at(*id);
        std::erase(things_.at(thing.parent).children, *id);
        things_.at(*to).children.push_back(*id);
        thing.parent = *to;
        thing.in_node = things_.at(*to).kind == kind_t::node;
    }

    void forget(const NodeId& id) {
        for (const NodeId& child : things_.at(id).children) forget(child);
        things_.erase(id);
    }
    void remove() {
        const auto id = pick([&](const NodeId& one, const Thing& thing) {
            return one != kRootId && (thing.children.size() < 4 || rng_.chance(10));
        });
        if (!id) return;
        tree_.world.remove(*id);
        std::erase(things_.at(things_.at(*id).parent).children, *id);
        forget(*id);
    }

    static constexpr int kBatch = 20;

    support::Rng rng_;
    const bool deep_;
    CountedTree tree_{{.block = 4096, .journal = 4 << 20}};
    std::map<NodeId, Thing> things_;
};

}  // namespace

TEST(AccountingModel, AgreesWithAPlainRecount) {
    for (const bool deep : {false, true})
        for (uint64_t seed = 1; seed <= 2; ++seed) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << (deep ? " deep" : " wide"));
            Model(seed, deep).run(250);
            if (HasFailure()) return;
        }
}
