#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "dbcache/detail/record_writer.h"
#include "support/test_store.h"
#include "test_classes.h"
#include "tql/query_text.h"

using namespace dbcache_test;
using dbcache::kRootId;

namespace {

class ResolverTest : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(world.fault(), ""); }

    /// The ids that an index answers; "walk" when none does.
    std::vector<std::string> matches(const std::string& query) {
        tqlengine::HandlerList list;
        if (!world.store->resolver().obviousMatches(list, tql::id_t::from_node_id(kRootId),
                                                    tql::parse_pattern(query)))
            return {"walk"};
        std::vector<std::string> ids;
        for (const auto& handler : list) ids.push_back(handler->tqlId().to_string());
        std::sort(ids.begin(), ids.end());
        return ids;
    }
    void store_raw(const NodeId& id, const NodeId& parent, uint32_t nodetype) {
        dbcache::RecordWriter writer(world.database->serializer());
        writer.add_head(id, parent, {}, nodetype);
        writer.add(mdb::PropertyString(prop::name, "raw"));
        static_cast<void>(world.objects->store_object({}));
    }

    TestStore world;
};

}  // namespace

TEST_F(ResolverTest, AnyIdIsAnswered) {
    const NodeId host = world.node(kRootId, "host");
    dbcache::DbcacheIdResolver& resolver = world.store->resolver();
    EXPECT_TRUE(resolver.find({0, 1}));
    EXPECT_TRUE(resolver.find({host.first, host.second, 3}));
    tql::id_t short_id;
    short_id.push_back(1);
    for (const tql::id_t& id :
         {tql::id_t{}, short_id, tql::id_t{0, 0}, tql::id_t{0, 3}, tql::id_t{0, 4}, tql::id_t{0, 5},
          tql::id_t{0, 1, 0}, tql::id_t{host.first, host.second, 0xFFFFFFFF}, tql::id_t{7, 7}})
        EXPECT_FALSE(resolver.find(id)) << id.to_string();
}

TEST_F(ResolverTest, IndexesAnswerTheStepsThatTheyCan) {
    const NodeId a = world.create(kRootId, cls::Domain,
                                  {text(prop::name, "a"), object(prop::masterId, {5, 50})});
    const NodeId b =
        world.create(a, cls::Node, {text(prop::name, "b"), object(prop::masterId, {5, 50})});
    const NodeId gone = world.create(kRootId, cls::Domain,
                                     {text(prop::name, "gone"), object(prop::masterId, {5, 51})});
    const NodeId below = world.create(gone, cls::Domain,
                                      {text(prop::name, "below"), object(prop::masterId, {5, 52})});
    world.remove(gone);
    std::vector<std::string> both{a.to_string(), b.to_string()};
    std::sort(both.begin(), both.end());
    const struct {
        std::string query;
        std::vector<std::string> ids;
    } cases[] = {
        {"Domain", {"walk"}},
        {"Domain{name = \"a\"}", {"walk"}},
        {fmt::format("Domain{{id = \"{}\"}}", a.to_string()), {a.to_string()}},
        {"Domain{id = null}", {}},
        {fmt::format("Domain{{id = \"{}\"}}", gone.to_string()), {}},
        {fmt::format("Domain{{id = \"{}\"}}", below.to_string()), {}},
        {"Domain{masterId = \"5.50\"}", both},
        {"Domain{masterId = \"5.50.2\"}", {b.to_string() + ".2"}},
        {"Domain{masterId = \"5.51\"}", {}},
        {"Domain{masterId = \"5.52\"}", {}},
    };
    for (const bool reopened : {false, true})
        for (const auto& one : cases) {
            SCOPED_TRACE(one.query);
            if (reopened) world.open();
            EXPECT_EQ(matches(one.query), one.ids);
        }
}

TEST_F(ResolverTest, NewIdsDescendAroundZeroPastThoseInUse) {
    world.open(1);
    dbcache::DbcacheIdResolver& resolver = world.store->resolver();
    world.create(kRootId, cls::Domain, {text(prop::name, "one")}, 0, NodeId{1, 1});
    world.create(kRootId, cls::Domain, {text(prop::name, "last")}, 0, NodeId{1, 0xFFFFFFFF});
    EXPECT_EQ(resolver.new_node_id(), (NodeId{1, 0}));
    EXPECT_EQ(resolver.new_node_id(), (NodeId{1, 0xFFFFFFFE}));
}

TEST_F(ResolverTest, OrphansOfAnAbortedCreateGoAndOthersStay) {
    store_raw({8, 1}, {8, 0}, nodetype::Domain);
    store_raw({8, 2}, {8, 0}, nodetype::Domain);
    EXPECT_TRUE(world.find({8, 1}));
    world.store->resolver().discardOrphans({0, 5});
    world.store->resolver().discardOrphans({8, 0});
    EXPECT_FALSE(world.find({8, 1}));
    EXPECT_FALSE(world.find({8, 2}));
    const NodeId a = world.domain(kRootId, "a");
    const NodeId b = world.domain(a, "b");
    world.store->resolver().discardOrphans(tql::id_t::from_node_id(a));
    EXPECT_TRUE(world.find(b));
}

TEST_F(ResolverTest, WhatCannotStandWhereItDoesIsDeletedByAListing) {
    const NodeId host = world.node(kRootId, "host");
    store_raw({8, 1}, host, nodetype::Domain);
    EXPECT_EQ(world.children(host, tql::pattern_t(cls::NodeInfoGroup)).size(), 0U);
    EXPECT_FALSE(world.find({8, 1}));
    EXPECT_FALSE(world.indexes->unique_find(mdb::node_id_index, {8, 1}));
}

TEST_F(ResolverTest, ClusterObjectsAreMadeOnce) {
    for (int start = 0; start < 3; ++start) {
        tqlengine::RequestContext request = world.context();
        dbcache::ensure_cluster_config(*world.store, request);
        EXPECT_EQ(world.children(kRootId), std::vector<std::string>{"0.512"});
        EXPECT_EQ(world.children(NodeId{0, 512}), std::vector<std::string>{"0.513"});
        EXPECT_EQ(world.fault(), "");
        if (start == 1) world.remove({0, 513});  // its tombstone makes room
        world.open();
    }
    EXPECT_EQ(world.store->schemas().get(nodetype::ClusterConfig).tql_class, cls::ClusterConfig);
}

TEST(SequenceTest, EachStartHasItsOwnRingSequence) {
    TestStore world;
    EXPECT_EQ(world.versions->current().ring_sequence, 8U) << "one more than what was kept outside";
    world.open();
    EXPECT_EQ(world.versions->current().ring_sequence, 9U);
}
