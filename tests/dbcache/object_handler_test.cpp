#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "dbcache/detail/record_writer.h"
#include "meter/meter.h"
#include "support/test_store.h"
#include "tql/query_text.h"

using namespace dbcache_test;
using dbcache::kRootId;

namespace {

using ::testing::Test;

class ObjectHandlerTest : public Test {
  protected:
    void TearDown() override { EXPECT_EQ(world.fault(), ""); }

    /// A request to be run later.
    std::function<void()> update(const NodeId& id, const Values& values) {
        return [this, id, values] { world.update(id, values); };
    }
    std::function<void()> create(const NodeId& parent, uint32_t child, const Values& values) {
        return [this, parent, child, values] { world.create(parent, child, values); };
    }

    TestStore world;
};

/// What a query sees of the objects, and what is in memory.
std::string dump(TestStore& world, const std::vector<NodeId>& ids) {
    std::string all;
    for (const NodeId& id : ids) {
        const tqlengine::HandlerRef parent = world.get(id)->tqlParentHandler();
        all += fmt::format("{} {} in {}", id.to_string(), world.get(id)->tqlVersion().to_string(),
                           parent ? parent->tqlId().to_string() : "");
        for (const auto& [property, value] : world.values(id))
            all += fmt::format(" {}={}", property, value->is_null ? "null" : value->print());
        for (const std::string& child : world.children(id)) all += " >" + child;
    }
    return all + fmt::format(" {} live {} names", world.store->live_handlers(),
                             world.store->sibling_index().size());
}

}  // namespace

TEST_F(ObjectHandlerTest, RefusedRequestsChangeNothing) {
    const NodeId a = world.domain(kRootId, "a");
    const NodeId b = world.domain(kRootId, "b");
    const NodeId below = world.domain(a, "below");
    const NodeId host = world.node(a, "host");
    const tql::version_t stale = world.get(a)->tqlVersion();
    world.update(a, {text(prop::label, "A")});

    const std::string exists =
        fmt::format("4 EXISTS{{{}}} Duplicate value given for primary key", b.to_string());
    const auto to_inherit = [](tql::value_t value) {
        value->flags = tql::kFlagInherited;
        return value;
    };
    const struct {
        std::function<void()> request;
        std::string failure;
    } cases[] = {
        {[&] { world.update(a, {text(prop::label, "x")}, 0, stale); },
         "3 Someone else has updated the object"},
        {[&] { world.remove(a, false, stale); }, "3 Someone else has updated the object"},
        {create(host, cls::Domain, {}), "5 Domain not allowed as child of Node"},
        {create(kRootId, cls::Domain, {text(prop::name, "b")}), exists},
        {update(a, {text(prop::name, "b")}), exists},
        {update(a, {text(prop::agentId, "x")}),
         "7 Attempted update of unknown property \"agentId\""},
        {update(a, {number(prop::name, 1)}), "9 Type mismatch for property name"},
        {update(a, {text(prop::name, "a/b")}),
         "10 Property name may only contain letters (a-z), digits, space, _ and -"},
        {update(host, {number(prop::checkinFrequency, 0)}),
         "10 Value for checkinFrequency too low"},
        {update(a, {null_object(prop::parentId)}), "10 Null given for parentId property"},
        {update(a, {object(prop::parentId, a)}), "10 Illegal value given for parentId property"},
        {update(a, {object(prop::parentId, below)}),
         "10 Illegal value given for parentId property"},
        {update(a, {object(prop::parentId, host)}), "10 Illegal value given for parentId property"},
        {update(kRootId, {object(prop::parentId, a)}),
         "10 Illegal value given for parentId property"},
        {update(a, {object(prop::parentId, {9, 9})}),
         "10 Illegal value given for parentId property"},
        {update(a, {to_inherit(text(prop::parentId, "x"))}),
         "10 Illegal value given for parentId property"},
        {update(a, {to_inherit(text(prop::copyVersion, "x"))}),
         "10 Property copyVersion does not allow inheritance"},
        {update(a, {to_inherit(text(prop::slaveBuild, "x"))}),
         "10 Property slaveBuild does not allow inheritance"},
        {[&] { world.remove(kRootId); }, "15 Cannot delete this object"},
        {[&] {
             world.create(kRootId, cls::Domain, {text(prop::name, "n")}, 0, NodeId{0, 5});
         },
         "10 Illegal id for a new object: \"0.5\""},
        {[&] { world.create(kRootId, cls::Domain, {text(prop::name, "n")}, 0, host); },
         fmt::format("4 {} exists already", host.to_string())},
        {update(a, {text(prop::comment, std::string(5000, 'x'))}), "14 "},
    };
    const std::vector<NodeId> all{kRootId, a, b, below, host};
    const std::string before = dump(world, all);
    for (const auto& one : cases) {
        SCOPED_TRACE(one.failure);
        const std::string failed = failure(one.request);
        if (one.failure == "14 ")
            EXPECT_EQ(failed.substr(0, 3), one.failure) << "in the store's own words";
        else
            EXPECT_EQ(failed, one.failure);
        EXPECT_EQ(dump(world, all), before);
        EXPECT_EQ(world.fault(), "");
    }
}

TEST_F(ObjectHandlerTest, UnknownPropertiesAreLeftOutOnRequest) {
    const NodeId a = world.domain(kRootId, "a");
    world.update(a, {text(prop::agentId, "x"), text(prop::label, "y")},
                 tqlengine::kIgnoreUnknownProperties);
    EXPECT_EQ(world.status, tqlengine::kStatusPropertyIgnored);
    EXPECT_EQ(world.value(a, prop::label), "\"y\"");
    world.update(a, {number(prop::slaveBuild, 77), text(prop::agentId, "x")},
                 tqlengine::kIgnoreUnknownProperties);
    EXPECT_EQ(world.value(a, prop::slaveBuild), "77");
    world.update(a, {number(prop::slaveBuild, 78)}, tqlengine::kIgnoreUnknownProperties);
    EXPECT_EQ(world.status, 0U);
    EXPECT_EQ(world.value(a, prop::slaveBuild), "null") << "this server knew all";
}

TEST_F(ObjectHandlerTest, CopyVersionStandsForTheVersionUntilALocalChange) {
    const auto copy_version = [](tql::version_t version) {
        return tql::value_t(std::make_unique<tql::property_version_t>(prop::copyVersion, version));
    };
    const NodeId a = world.domain(kRootId, "a");
    world.update(a, {copy_version({3, 14})});
    EXPECT_EQ(world.get(a)->tqlVersion(), (tql::version_t{3, 14}));
    world.open();
    EXPECT_EQ(world.get(a)->tqlVersion(), (tql::version_t{3, 14}));
    world.update(a, {copy_version({})});
    EXPECT_EQ(world.get(a)->tqlVersion(), world.versions->current());
    EXPECT_NE(world.value(a, prop::copyVersion), "null");
    world.update(a, {text(prop::label, "mine")});
    EXPECT_EQ(world.get(a)->tqlVersion(), world.versions->current());
    EXPECT_EQ(world.value(a, prop::copyVersion), "null");
}

TEST_F(ObjectHandlerTest, DeleteLeavesATombstoneAndHidesTheSubtree) {
    const NodeId a = world.domain(kRootId, "a");
    const NodeId b = world.domain(a, "b");
    const NodeId host = world.node(b, "host");
    const NodeId other = world.domain(kRootId, "other");
    world.remove(a);
    for (const bool reopened : {false, true}) {
        SCOPED_TRACE(reopened);
        if (reopened) world.open();
        for (const NodeId& gone : {a, b, host}) EXPECT_FALSE(world.find(gone)) << gone.to_string();
        EXPECT_TRUE(world.find(other));
        EXPECT_EQ(world.children(kRootId), std::vector<std::string>{other.to_string()});
        // The tombstone keeps the id, and the children their place until they are removed.
        EXPECT_EQ(
            failure([&] { world.create(kRootId, cls::Domain, {text(prop::name, "c")}, 0, a); }),
            fmt::format("4 {} exists already", a.to_string()));
        world.store->resolver().discardOrphans(tql::id_t::from_node_id(a));
        EXPECT_TRUE(world.indexes->unique_find(mdb::node_id_index, b));
    }
    const mdb::dobj stone =
        world.objects->load_object(*world.indexes->unique_find(mdb::node_id_index, a));
    std::vector<uint32_t> ids;
    for (const mdb::RecordView record : mdb::ObjectRecords(stone)) ids.push_back(record.id());
    EXPECT_EQ(ids,
              (std::vector<uint32_t>{prop::id, prop::parentId, prop::version, prop::nodeType}));
    mdb::PropertyNodeId parent(prop::parentId);
    parent.read(stone);
    EXPECT_EQ(parent.value, dbcache::kFreshTombstones);
    world.domain(kRootId, "a");
}

TEST_F(ObjectHandlerTest, GroupsStandBetweenAnObjectAndItsChildren) {
    const NodeId host = world.node(kRootId, "host");
    const std::string id = host.to_string();
    EXPECT_EQ(world.children(host),
              (std::vector<std::string>{id + ".0", id + ".1", id + ".2", id + ".3"}));
    tql::pattern_t lines(cls::NodeInfoGroup);
    EXPECT_TRUE(world.children(host, lines).empty());
    const tqlengine::HandlerRef group = world.store->resolver().find({host.first, host.second, 2});
    ASSERT_TRUE(group);
    EXPECT_EQ(group->tqlParentHandler()->tqlId().to_string(), id);
    EXPECT_FALSE(world.store->resolver().find({host.first, host.second, 4}));
    EXPECT_EQ(failure([&] {
                  tqlengine::RequestContext request = world.context();
                  group->tqlDelete({{}, {}, false, request});
              }),
              "15 Cannot delete this object");
    EXPECT_EQ(failure([&] { world.create(group->tqlId(), cls::Domain, {}); }),
              "5 Domain not allowed as child of CheckGroup");
}

TEST_F(ObjectHandlerTest, ListingFollowsTheStep) {
    const NodeId a = world.domain(kRootId, "a");
    const NodeId host = world.node(kRootId, "host");
    const auto listed = [&](const std::string& query) {
        return world.children(kRootId, tql::parse_pattern(query));
    };
    EXPECT_EQ(listed("Domain"), std::vector<std::string>{a.to_string()});
    EXPECT_EQ(listed("Node"), std::vector<std::string>{host.to_string()});
    EXPECT_EQ(listed("Domain* > Node"),
              (std::vector<std::string>{a.to_string(), host.to_string()}));
    EXPECT_TRUE(listed("Domain#").empty()) << "templates only";
    const uint64_t looked_at = world.store->cache().hits();
    EXPECT_EQ(listed("Node{siblingName = \"host\"}"), std::vector<std::string>{host.to_string()});
    EXPECT_EQ(world.store->cache().hits(), looked_at + 1) << "the root alone";
    EXPECT_TRUE(listed("Node{siblingName = \"nobody\"}").size() <= 1) << "a walk may list too much";
    const meter::Tree metrics("dbms");
    const auto counted = [&](const char* name) {
        const auto* group = dynamic_cast<meter::Group*>(metrics.root().find("dbcache"));
        const auto* metric =
            group ? dynamic_cast<meter::IntegerCounter*>(group->find(name)) : nullptr;
        return metric ? metric->value() : 0;
    };
    const uint64_t lookups = counted("with_sibling");
    const uint64_t hits = counted("with_sibling_found");
    static_cast<void>(listed("Node{siblingName = \"host\"}"));
    static_cast<void>(listed("Node{siblingName = \"nobody\"}"));
    EXPECT_EQ(counted("with_sibling"), lookups + 2);
    EXPECT_EQ(counted("with_sibling_found"), hits + 1);
}

TEST_F(ObjectHandlerTest, HandlersComeAndGoWithTheCache) {
    world.store->cache().cache_set_limits(1, 1, 1);
    std::vector<NodeId> hosts;
    for (int i = 0; i < 40; ++i) hosts.push_back(world.node(kRootId, fmt::format("host {}", i)));
    for (int round = 0; round < 3; ++round)
        for (size_t i = 0; i < hosts.size(); ++i) {
            world.update(hosts[i], {text(prop::label, fmt::format("{}", round))});
            EXPECT_EQ(world.value(hosts[i], prop::name), fmt::format("\"host {}\"", i));
        }
    EXPECT_LT(world.store->live_handlers(), 60U);
    EXPECT_EQ(world.children(kRootId).size(), hosts.size());
    EXPECT_EQ(world.fault(), "");
}
