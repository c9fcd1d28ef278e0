#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <map>

#include "dbcache/detail/record_writer.h"
#include "support/rng.h"
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

// ---- random operations against a simple model --------------------------------------------------

namespace {

/// The tree as it should be: parents, names and versions; nothing else.
struct ModelObject {
    NodeId parent;
    std::string name;
    tql::version_t version;
};
using Model = std::map<NodeId, ModelObject>;

bool stands_below(const Model& model, NodeId id, const NodeId& above) {
    while (!id.is_null() && id != above) id = model.at(id).parent;
    return id == above;
}

bool name_taken(const Model& model, const NodeId& self, const NodeId& parent,
                const std::string& name) {
    return std::any_of(model.begin(), model.end(), [&](const auto& entry) {
        return entry.first != self && entry.second.parent == parent && entry.second.name == name;
    });
}

void expect_same(TestStore& world, const Model& model) {
    for (const auto& [id, object] : model) {
        ASSERT_TRUE(world.find(id)) << id.to_string();
        EXPECT_EQ(world.get(id)->tqlVersion(), object.version);
        EXPECT_EQ(world.value(id, prop::name), "\"" + object.name + "\"");
        std::vector<std::string> expected;
        for (const auto& [child, one] : model)
            if (one.parent == id) expected.push_back(child.to_string());
        auto children = world.children(id, tql::pattern_t(cls::Domain));
        std::sort(children.begin(), children.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(children, expected);
        if (object.parent.is_null()) continue;
        const auto named = world.children(
            object.parent,
            tql::parse_pattern(fmt::format("Domain{{siblingName = \"{}\"}}", object.name)));
        EXPECT_NE(std::find(named.begin(), named.end(), id.to_string()), named.end());
    }
    ASSERT_EQ(world.fault(), "");
}

}  // namespace

TEST(TreeModelTest, RandomWritesKeepTheTree) {
    for (const uint64_t seed : {1U, 2U, 3U}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        support::Rng rng(seed);
        const Hooks hooks;
        TestStore world({.block = 1024, .journal = 256 * 1024, .capacity = 16 << 20},
                        test_classes(hooks));
        world.store->cache().cache_set_limits(3, 3, 5);
        Model model{{kRootId, {{}, "Root domain", world.get(kRootId)->tqlVersion()}}};
        std::vector<NodeId> deleted;
        const auto any = [&] {
            return std::next(model.begin(), static_cast<int64_t>(rng.below(model.size())))->first;
        };
        for (int step = 0; step < 400; ++step) {
            SCOPED_TRACE(testing::Message() << "step " << step);
            const NodeId id = any();
            const NodeId parent = any();
            const std::string name = fmt::format("n{}", rng.below(12));
            const Values filled{text(prop::name, name),
                                text(prop::label, std::string(rng.below(400), 'l'))};
            const uint64_t kind = rng.below(100);
            if (kind < 45) {
                const bool taken = name_taken(model, {}, parent, name);
                NodeId made;
                const std::string failed =
                    failure([&] { made = world.create(parent, cls::Domain, filled); });
                ASSERT_EQ(failed.empty(), !taken) << failed;
                if (!taken) model[made] = {parent, name, world.versions->current()};
            } else if (id == kRootId) {
                continue;
            } else if (kind < 65) {
                const bool taken = name_taken(model, id, model[id].parent, name);
                ASSERT_EQ(failure([&] { world.update(id, filled); }).empty(), !taken);
                if (!taken) model[id] = {model[id].parent, name, world.versions->current()};
            } else if (kind < 85) {
                const bool refused = stands_below(model, parent, id) ||
                                     name_taken(model, id, parent, model[id].name);
                ASSERT_EQ(
                    failure([&] { world.update(id, {object(prop::parentId, parent)}); }).empty(),
                    !refused);
                if (!refused) model[id] = {parent, model[id].name, world.versions->current()};
            } else if (kind < 95) {
                world.remove(id);
                Model left;
                for (const auto& [one, what] : model)
                    (stands_below(model, one, id) ? (deleted.push_back(one), 0)
                                                  : (left[one] = what, 0));
                model = std::move(left);
                for (const NodeId& one : deleted) ASSERT_FALSE(world.find(one)) << one.to_string();
            } else {
                world.open();
                world.store->cache().cache_set_limits(3, 3, 5);
            }
            if (step % 20 == 0) expect_same(world, model);
        }
        world.open();
        expect_same(world, model);
    }
}
