// Counters carried up the tree: what changes them, how far the changes go, and that a write which
// fails has changed none.
#include "dbcache/accounting.h"

#include <gtest/gtest.h>
#include <limits>

#include "counted_classes.h"

using namespace dbcache_test;
using dbcache::kRootId;
using dbcache::UseMap;

namespace {

class AccountingTest : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(tree.fault(), ""); }

    /// Everything that a query can see from `id` down.
    std::string dump(const NodeId& id = kRootId) {
        std::string all =
            fmt::format("({} {}", id.to_string(), tree.world.get(id)->tqlVersion().to_string());
        for (const auto& [property, value] : tree.world.values(id))
            all += fmt::format(" {}={}", property, value->is_null ? "null" : value->print());
        tql::pattern_t any(cls::Any);
        for (uint32_t group = 0; group <= esxi_group; ++group)
            if (tree.world.get(id)->class_number() == cls::Node)
                for (const std::string& child :
                     tree.world.children(tql::id_t(id.first, id.second, group), any))
                    all += dump(NodeId::parse(child));
        if (tree.world.get(id)->class_number() != cls::Node)
            for (const std::string& child : tree.world.children(id, any))
                all += dump(NodeId::parse(child));
        return all + ")";
    }
    std::string memory() {
        return fmt::format("{} handlers {} names", tree.world.store->live_handlers(),
                           tree.world.store->sibling_index().size());
    }

    CountedTree tree;
};

}  // namespace

TEST(NodeClass, FollowsKeyAndChecks) {
    constexpr uint32_t kNone = 0;
    const struct {
        bool key;
        uint32_t net, agent, snmp, expected;
    } cases[] = {
        {false, 0, 0, 0, kNone},
        {false, 0, 9, 0, kNone},
        {false, 1, 9, 0, prop::countNetCheckNodes},
        {false, 1, 0, 1, prop::countSnmpCheck10Nodes},
        {false, 0, 0, 10, prop::countSnmpCheck10Nodes},
        {false, 9, 9, 11, prop::countSnmpCheckInfNodes},
        {true, 0, 0, 0, prop::countAgentLimitNodes},
        {true, 9, 5, 11, prop::countAgentLimitNodes},
        {true, 9, 6, 11, prop::countAgentCheckNodes},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(fmt::format("{} {} {} {}", one.key, one.net, one.agent, one.snmp));
        for (const uint32_t esxi : {0U, 3U}) {
            UseMap expected{{prop::countNodes, 1}};
            if (one.expected != kNone) expected[one.expected] = 1;
            if (esxi > 0) expected[prop::countEsxiNodes] = 1;
            EXPECT_EQ(dbcache::node_use({one.net, one.agent, one.snmp, esxi, one.key}), expected);
        }
    }
}

TEST(UseArithmetic, DifferencesHaveNoZeros) {
    const UseMap before{{3200, 5}, {3201, 2}, {3202, 1}, {3203, 0}};
    const UseMap after{{3200, 5}, {3201, 3}, {3204, 1}, {3205, 0}};
    EXPECT_EQ(dbcache::get_use_diff(before, after), (UseMap{{3201, 1}, {3202, -1}, {3204, 1}}));
    EXPECT_EQ(dbcache::get_use_diff(before, {}), (UseMap{{3200, -5}, {3201, -2}, {3202, -1}}));
    EXPECT_TRUE(dbcache::get_use_diff(after, after).empty());
}

TEST(UseArithmetic, LeavingTheRangeEndsTheProcess) {
    constexpr int32_t kMost = std::numeric_limits<int32_t>::max();
    constexpr uint32_t kMostCount = std::numeric_limits<uint32_t>::max();
    EXPECT_EQ(dbcache::add_to_counter(kMostCount - 1, 1), kMostCount);
    EXPECT_EQ(dbcache::add_to_counter(1, -1), 0U);
    EXPECT_DEATH(static_cast<void>(dbcache::add_to_counter(kMostCount, 1)),
                 "Assertion failed: Overflow");
    EXPECT_DEATH(static_cast<void>(dbcache::add_to_counter(0, -1)), "Assertion failed: Overflow");
    EXPECT_EQ(dbcache::get_use_diff({{3200, 1}}, {{3200, -kMost}}).at(3200), -kMost - 1);
    EXPECT_DEATH(static_cast<void>(dbcache::get_use_diff({{3200, 2}}, {{3200, -kMost}})),
                 "Assertion failed: Overflow in get_use_diff");
    EXPECT_DEATH(static_cast<void>(dbcache::get_use_diff({{3200, -kMost - 1}}, {})),
                 "Assertion failed: Overflow in get_use_diff");
    UseMap use{{3200, kMost}};
    EXPECT_DEATH(dbcache::add_use(use, 3200, 1), "Assertion failed: Overflow");
}

TEST_F(AccountingTest, ANewCheckCountsUpToTheRootOrTheMountPoint) {
    const NodeId above = tree.domain(kRootId);
    const NodeId mount = tree.mount_point(above);
    const NodeId mounted = tree.domain(mount);
    const NodeId inner = tree.domain(mounted);
    const NodeId far = tree.node(inner);
    tree.in_node(far, net_group);
    EXPECT_EQ(tree.counters(far), "countNetChecks=1");
    for (const NodeId& domain : {inner, mounted})
        EXPECT_EQ(tree.counters(domain), "countNetChecks=1 countNodes=1 countNetCheckNodes=1");
    EXPECT_EQ(tree.counters(above), "");

    const NodeId near = tree.node(above);
    const NodeId group = tree.in_node(near, agent_group);
    const NodeId nested = tree.group(group, agent_group);
    tree.check(nested);
    tree.check(nested, false);
    const NodeId esxi = tree.group(tree.in_node(near, esxi_group), esxi_group);
    tree.check(esxi);
    for (const NodeId& one : {nested, group}) EXPECT_EQ(tree.counters(one), "countAgentChecks=1");
    EXPECT_EQ(tree.counters(near), "countAgentChecks=1 countEsxiChecks=1");
    for (const NodeId& domain : {above, kRootId})
        EXPECT_EQ(tree.counters(domain),
                  "countAgentChecks=1 countNodes=1 countEsxiNodes=1 countEsxiChecks=1");
}

TEST_F(AccountingTest, ANodeChangesItsClassWithKeyAndChecks) {
    const NodeId domain = tree.domain(kRootId);
    const NodeId node = tree.node(domain);
    const NodeId agent = tree.in_node(node, agent_group);
    const NodeId snmp = tree.in_node(node, snmp_group);
    const auto class_is = [&](const std::string& expected) {
        const std::string shown = expected.empty() ? "" : " " + expected;
        std::string counters = tree.counters(kRootId);
        counters.erase(0, counters.find("countNodes=1") + 12);
        EXPECT_EQ(counters, shown);
        EXPECT_EQ(tree.counters(domain), tree.counters(kRootId));
    };
    class_is("");
    const NodeId net = tree.in_node(node, net_group);
    class_is("countNetCheckNodes=1");
    std::vector<NodeId> snmp_checks;
    for (int i = 0; i < 10; ++i) snmp_checks.push_back(tree.check(snmp));
    class_is("countSnmpCheck10Nodes=1");
    snmp_checks.push_back(tree.check(snmp));
    class_is("countSnmpCheckInfNodes=1");
    tree.set_key(node, 0);
    class_is("countSnmpCheckInfNodes=1");
    tree.set_key(node, 77);
    class_is("countAgentLimitNodes=1");
    for (int i = 0; i < 5; ++i) tree.check(agent);
    class_is("countAgentLimitNodes=1");
    const NodeId sixth = tree.check(agent);
    class_is("countAgentCheckNodes=1");
    tree.set_active(sixth, false);
    class_is("countAgentLimitNodes=1");
    tree.set_key(node, std::nullopt);
    class_is("countSnmpCheckInfNodes=1");
    tree.world.remove(snmp_checks.back());
    class_is("countSnmpCheck10Nodes=1");
    tree.world.remove(snmp);
    class_is("countNetCheckNodes=1");
    tree.set_active(net, false);
    class_is("countNetCheckNodes=1");
    tree.world.remove(net);
    class_is("");
}

TEST_F(AccountingTest, AnUpdateThatChangesNoCounterWritesNoAncestor) {
    const NodeId domain = tree.domain(kRootId);
    const NodeId node = tree.node(domain);
    const NodeId check = tree.check(tree.in_node(node, agent_group));
    int accounted = 0;
    tree.hook = [&](const NodeId&) { ++accounted; };
    tree.world.update(node, {text(prop::label, "x")});
    tree.world.update(domain, {text(prop::label, "x")});
    tree.set_active(check, true);
    tree.move(check, tree.in_node(node, agent_group));
    EXPECT_EQ(accounted, 8) << "the move alone: group, node and two domains, down and up";
}

TEST_F(AccountingTest, AMoveCarriesTheCountersAlong) {
    const NodeId from = tree.domain(kRootId);
    const NodeId common = tree.domain(kRootId);
    const NodeId to = tree.domain(common);
    const NodeId mounted = tree.domain(tree.mount_point(common));
    const NodeId moved = tree.domain(from);
    const NodeId node = tree.node(moved);
    tree.in_node(node, net_group);
    const std::string all = "countNetChecks=1 countNodes=1 countNetCheckNodes=1";
    tree.move(moved, to);
    EXPECT_EQ(tree.counters(from), "");
    EXPECT_EQ(tree.counters(to), all);
    EXPECT_EQ(tree.counters(common), all);
    EXPECT_EQ(tree.counters(kRootId), all);
    EXPECT_TRUE(tree.world.store->moved_nodes().empty()) << "nodes that move themselves alone";
    tree.move(moved, mounted);
    EXPECT_EQ(tree.counters(mounted), all);
    for (const NodeId& domain : {to, common, kRootId}) EXPECT_EQ(tree.counters(domain), "");

    // With a key given in the same request the node leaves as one class and arrives as another.
    Values values;
    values.push_back(object(prop::parentId, to));
    values.push_back(std::make_unique<tql::property_bignum_t>(prop::keySecret, BigNum(1)));
    tree.world.update(node, values);
    EXPECT_EQ(tree.counters(moved), "");
    EXPECT_EQ(tree.counters(kRootId), "countNetChecks=1 countNodes=1 countAgentLimitNodes=1");
    EXPECT_EQ(tree.world.store->moved_nodes(), std::set<NodeId>{node});
}

TEST_F(AccountingTest, ARefusedMoveChangesNoCounter) {
    const NodeId from = tree.domain(kRootId);
    const NodeId to = tree.domain(kRootId);
    const NodeId moved = tree.domain(from);
    const NodeId node = tree.node(moved);
    const NodeId group = tree.in_node(node, agent_group);
    const NodeId active = tree.check(group);
    const NodeId idle = tree.check(group, false);
    for (const NodeId& check : {active, idle})
        tree.world.update(check, {object(prop::alertGroup, from)});
    const std::string before = dump();
    const std::string in_memory = memory();
    // Of a node only what is active is looked at again.
    const std::string refused = fmt::format("15 MOVE_ERR{{{}:alertGroup}}", active.to_string());
    for (const NodeId& one : {node, moved}) {
        EXPECT_EQ(failure([&] { tree.move(one, to); }), refused);
        EXPECT_EQ(dump(), before);
        EXPECT_EQ(memory(), in_memory);
        EXPECT_EQ(tree.fault(), "");
    }
    EXPECT_TRUE(tree.world.store->moved_nodes().empty());
    tree.set_active(active, false);
    tree.move(moved, to);
    EXPECT_EQ(tree.counters(to), "countNodes=1");
    EXPECT_EQ(tree.counters(from), "");
}

TEST_F(AccountingTest, AnAncestorThatCantHoldTheCounterUndoesTheWrite) {
    const NodeId node = tree.node(tree.domain(kRootId));
    const NodeId group = tree.in_node(node, agent_group);
    const NodeId lacks = tree.world.create(group, cls::Series, {text(prop::name, "lacks")});
    const NodeId other = tree.world.create(group, cls::Tag, {text(prop::name, "other")});
    const NodeId check = tree.check(group);
    const std::string before = dump();
    const std::string in_memory = memory();
    const struct {
        NodeId parent;
        const char* text;
    } cases[] = {
        {lacks,
         "7 Attempted accounting update of unknown property countAgentChecks in class Series"},
        {other, "7 Attempted accounting update of property \"countAgentChecks\" of wrong type"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.text);
        EXPECT_EQ(failure([&] { tree.check(one.parent); }), one.text);
        EXPECT_EQ(failure([&] { tree.move(check, one.parent); }), one.text);
        EXPECT_EQ(dump(), before);
        EXPECT_EQ(memory(), in_memory);
        tree.check(one.parent, false);  // counts for nothing
        tree.world.remove(NodeId::parse(tree.world.children(one.parent).at(0)));
    }
    const NodeId plain = tree.world.create(group, cls::QuickLink, {text(prop::name, "plain")});
    EXPECT_DEATH(tree.check(plain),
                 fmt::format("Accounting not implemented for nodetype {}", nodetype::QuickLink));
}

TEST_F(AccountingTest, ACounterThatWouldWrapEndsTheProcess) {
    const NodeId node = tree.node(kRootId);
    const NodeId check = tree.in_node(node, net_group);
    {
        const dbcache::StoreTransaction broken(*tree.world.store);
        const auto root = tree.world.store->resolver().find_object(kRootId);
        root->rewrite_records([](mdb::ObjectStore& objects, mdb::dobj& image) {
            objects.update_property(image, mdb::PropertyCount(prop::countNetChecks, 0), true,
                                    false);
        });
        EXPECT_DEATH(tree.world.remove(check), "Assertion failed: Overflow");
    }
}

TEST_F(AccountingTest, ADamagedValueStopsNoWriteAroundIt) {
    const NodeId domain = tree.domain(kRootId);
    const NodeId node = tree.node(domain);
    for (const NodeId& id : {domain, node}) {
        dbcache::StoreTransaction damage(*tree.world.store);
        const auto damaged = tree.world.store->resolver().find_object(id);
        damaged->rewrite_records([](mdb::ObjectStore& objects, mdb::dobj& image) {
            objects.remove_property(image, prop::label, true);
            objects.update_property(image, mdb::PropertyUint32(prop::label, 7), true, false);
        });
        damage.commit();
    }
    tree.in_node(node, net_group);
    EXPECT_EQ(tree.counters(kRootId), "countNetChecks=1 countNodes=1 countNetCheckNodes=1");
    tree.world.remove(node);
    EXPECT_EQ(tree.counters(kRootId), "");
    tree.world.remove(domain);
}
