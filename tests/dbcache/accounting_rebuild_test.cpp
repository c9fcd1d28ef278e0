// Counters worked out from the stored objects: written where they are missing, compared where they
// stand, in a running store and in the verification of files.
#include "dbcache/accounting_rebuild.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "counted_classes.h"
#include "dbcache/stored_tree.h"

using namespace dbcache_test;
using dbcache::kRootId;

namespace {

constexpr uint32_t kTelling[] = {prop::countNetChecks, prop::countAgentLimitNodes,
                                 prop::countEsxiNodes, prop::countEsxiChecks};

class RebuildTest : public ::testing::Test {
  protected:
    /// Some of everything, below `top`; gives the domains.
    std::vector<NodeId> plant(const NodeId& top) {
        const NodeId outer = tree.domain(top);
        const NodeId inner = tree.domain(outer);
        const NodeId mounted = tree.domain(tree.mount_point(outer));
        node = tree.node(inner);
        tree.set_key(node, 9);
        net = tree.in_node(node, net_group);
        agent = tree.in_node(node, agent_group);
        for (int i = 0; i < 7; ++i) tree.check(tree.group(agent, agent_group), i != 3);
        snmp = tree.in_node(tree.node(mounted), snmp_group);
        for (int i = 0; i < 11; ++i) tree.check(snmp);
        const NodeId root_group = tree.in_node(tree.node(outer), esxi_group);
        esxi = tree.group(root_group, esxi_group);
        tree.check(esxi);
        return {outer, inner, mounted};
    }
    /// Changes a stored counter behind everybody's back; none takes it out.
    void tamper(const NodeId& id, uint32_t number, std::optional<uint32_t> value) {
        tree.world.open();  // no handler may know it
        dbcache::StoredTree stored(tree.parts());
        const mdb::PropertyCount counter(number, value.value_or(0));
        if (value)
            static_cast<void>(stored.rewrite(stored.get(id), {&counter}));
        else
            static_cast<void>(stored.drop(stored.get(id), number));
    }
    void remove_all_counters(const std::vector<NodeId>& domains) {
        for (const NodeId& id : domains)
            for (uint32_t number = prop::countNetChecks; number <= prop::countEsxiChecks; ++number)
                tamper(id, number, std::nullopt);
    }
    /// What the verification of the whole database says with the check of the counters.
    std::string file_faults() {
        const auto check = dbcache::make_accounting_check();
        mdb::VerifyOptions options;
        options.checks = {check.get()};
        return mdb::verify(*tree.world.database, options).text();
    }

    CountedTree tree;
    NodeId node, net, agent, snmp, esxi;
};

}  // namespace

TEST_F(RebuildTest, WritesWhatTheWritesWouldHaveCarriedUp) {
    std::vector<NodeId> domains = plant(kRootId);
    domains.push_back(kRootId);
    std::vector<std::string> before;
    for (const NodeId& id : domains) before.push_back(tree.counters(id));
    EXPECT_EQ(tree.counters(kRootId),
              "countNetChecks=1 countAgentChecks=6 countNodes=2 countAgentCheckNodes=1 "
              "countEsxiNodes=1 countEsxiChecks=1");
    EXPECT_EQ(tree.counters(domains[2]),
              "countSnmpChecks=11 countNodes=1 countSnmpCheckInfNodes=1");
    remove_all_counters(domains);
    tamper(domains[1], prop::countNodes, 1234);
    tamper(node, prop::countNetChecks, std::nullopt);
    tamper(agent, prop::countAgentChecks, 7);
    EXPECT_NE(tree.fault(), "");
    tree.world.open();
    dbcache::ensure_accounting(tree.parts());
    for (size_t i = 0; i < domains.size(); ++i) EXPECT_EQ(tree.counters(domains[i]), before[i]);
    EXPECT_EQ(tree.fault(), "");
    EXPECT_EQ(file_faults(), "");
}

TEST_F(RebuildTest, RunsWhereATellingCounterIsMissing) {
    const auto ran = [&] {
        tree.world.log.clear();
        dbcache::ensure_accounting(tree.parts());
        return std::count_if(tree.world.log.begin(), tree.world.log.end(), [](const auto& line) {
            return line.find("Missing accounting information, inferring...") != line.npos ||
                   line.find("Done inferring accounting information") != line.npos;
        });
    };
    EXPECT_EQ(ran(), 2) << "an empty database, whose root was made without counters";
    EXPECT_EQ(ran(), 0);
    for (const uint32_t number : kTelling) {
        SCOPED_TRACE(tql::property_name(number));
        tamper(kRootId, number, std::nullopt);
        EXPECT_TRUE(dbcache::accounting_is_missing(tree.parts()));
        EXPECT_EQ(ran(), 2);
    }
    tamper(kRootId, prop::countNodes, std::nullopt);
    EXPECT_EQ(ran(), 0);
}

TEST_F(RebuildTest, TheComparisonNamesTheObjectThatIsWrong) {
    const std::vector<NodeId> domains = plant(kRootId);
    tree.world.open();
    dbcache::ensure_accounting(tree.parts());
    const auto named = [&](const NodeId& id) {
        const std::string name = tree.world.value(id, prop::name);
        return fmt::format("{} ({})", name.substr(1, name.size() - 2), id);
    };
    const struct {
        NodeId id;
        uint32_t number;
        std::string text;
    } cases[] = {
        {kRootId, prop::countNodes, "domain " + named(kRootId)},
        {domains[0], prop::countEsxiNodes, "domain " + named(domains[0])},
        {domains[2], prop::countSnmpCheckInfNodes, "domain " + named(domains[2])},
        {node, prop::countNetChecks, "node " + named(node)},
        {agent, prop::countAgentChecks, "AgentCheckGroup " + named(agent)},
        {snmp, prop::countSnmpChecks, "SnmpCheckGroup " + snmp.to_string()},
        {esxi, prop::countEsxiChecks, "EsxiCheckGroup " + named(esxi)},
    };
    EXPECT_EQ(tree.fault(), "");
    EXPECT_EQ(file_faults(), "");
    for (const auto& one : cases) {
        SCOPED_TRACE(one.text);
        const auto right = static_cast<uint32_t>(std::stoul(tree.world.value(one.id, one.number)));
        tamper(one.id, one.number, right + 5);
        EXPECT_EQ(tree.fault(), "Accounting error in " + one.text);
        EXPECT_NE(
            file_faults().find(fmt::format("A1 Accounting error in {}: {} is {}, not {}", one.text,
                                           tql::property_name(one.number), right + 5, right)),
            std::string::npos)
            << file_faults();
        tamper(one.id, one.number, right);
        EXPECT_EQ(tree.fault(), "");
    }
    // All of them at once.
    for (const auto& one : cases) tamper(one.id, one.number, 99);
    const std::string faults = file_faults();
    EXPECT_EQ(std::count(faults.begin(), faults.end(), '\n'), 7) << faults;
    tamper(kRootId, prop::countNetChecks, std::nullopt);
    EXPECT_EQ(file_faults(), "") << "the next start writes them";
}

TEST_F(RebuildTest, ATreeThatGoesInCirclesEndsTheWalk) {
    plant(kRootId);
    tree.world.open();
    dbcache::StoredTree stored(tree.parts());
    const mdb::PropertyNodeId parent(prop::parentId, kRootId);
    static_cast<void>(stored.rewrite(stored.get(kRootId), {&parent}));
    EXPECT_THROW(dbcache::rebuild_accounting(tree.parts()), mdb::error_need_repair);
}
