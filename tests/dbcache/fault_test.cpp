// Writes that fail in the middle: whatever throws, file, cache, sibling index and handlers are as
// before.
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>

#include "dbcache/sibling_index.h"
#include "support/test_store.h"
#include "test_classes.h"

using namespace dbcache_test;
using dbcache::kRootId;
using dbcache::ObjectHandler;
using dbcache::ObjectHandlerRef;

namespace {

class FaultTest : public ::testing::Test {
  protected:
    explicit FaultTest(const TestStore::Sizes& sizes = {}) : world(sizes, test_classes(hooks)) {}
    void TearDown() override { EXPECT_EQ(world.fault(), ""); }

    NodeId folder(const NodeId& parent, const std::string& name) {
        return world.domain(parent, name);
    }
    /// Everything that a query can see, and what is in memory.
    std::string dump(const NodeId& id = kRootId) {
        std::string all =
            fmt::format("({} {}", id.to_string(), world.get(id)->tqlVersion().to_string());
        for (const auto& [property, value] : world.values(id))
            all += fmt::format(" {}={}", property, value->is_null ? "null" : value->print());
        for (const std::string& child : world.children(id, tql::pattern_t(cls::Domain)))
            all += dump(NodeId::parse(child));
        return all + ")";
    }
    std::string memory() {
        return fmt::format("{} handlers {} names", world.store->live_handlers(),
                           world.store->sibling_index().size());
    }

    Hooks hooks;
    TestStore world;
};

class SmallFaultTest : public FaultTest {
  protected:
    SmallFaultTest() : FaultTest({.block = 1024, .journal = 64 * 1024, .capacity = 256 * 1024}) {}
};

}  // namespace

TEST_F(FaultTest, WhatAHookHasWrittenGoesWithTheOuterWrite) {
    const NodeId a = folder(kRootId, "a");
    const NodeId b = folder(kRootId, "b");
    const std::string before = dump();
    world.store->cache().cache_set_limits(1, 1, 1);  // nothing stays in memory by itself
    int depth = 0;
    const auto nested = [&](bool fails) {
        return [&, fails](ObjectHandler& handler) {
            if (handler.node_id() != a || depth > 0) return;
            ++depth;
            world.update(b,
                         {text(prop::name, "renamed"), text(prop::label, std::string(300, 'y'))});
            for (int i = 0; i < 5; ++i) static_cast<void>(world.values(kRootId));
            --depth;
            if (fails) throw errors::tql(errors::ERR_ILLEGAL_VALUE, "after all");
        };
    };
    for (auto* hook : {&hooks.after_update, &hooks.after_store}) {
        *hook = nested(true);
        EXPECT_EQ(failure([&] { world.update(a, {text(prop::label, std::string(500, 'z'))}); }),
                  "10 after all");
        *hook = {};
        EXPECT_EQ(dump(), before);
        EXPECT_EQ(world.store->sibling_index().find({kRootId, cls::Domain, "renamed"}), nullptr);
        EXPECT_EQ(world.fault(), "");
    }
    world.open();
    EXPECT_EQ(dump(), before);
    hooks.after_update = nested(false);
    world.update(a, {text(prop::label, "ok")});
    hooks.after_update = {};
    world.open();
    EXPECT_EQ(world.value(a, prop::label), "\"ok\"");
    EXPECT_EQ(world.value(b, prop::name), "\"renamed\"");
}

TEST_F(FaultTest, WhatAHookHasMadeGoesWithTheOuterWrite) {
    const NodeId a = folder(kRootId, "a");
    const std::string before = dump();
    const std::string in_memory = memory();
    const NodeId made{1, 77};
    tqlengine::HandlerRef held;
    bool deletes = false;
    int depth = 0;
    const auto make_one = [&] {
        world.create(a, cls::Domain, {text(prop::name, "made")}, 0, made);
        world.update(made, {text(prop::name, "renamed")});
        held = world.get(made);
        if (deletes) world.remove(made);
    };
    const auto make_and_fail = [&](ObjectHandler& handler) {
        if (handler.node_id() != a || depth > 0) return;
        ++depth;
        for (int i = 0; i < 2; ++i) {
            const dbcache::StoreTransaction inner(*world.store);
            make_one();
        }
        make_one();  // nothing is left of the others
        --depth;
        throw errors::tql(errors::ERR_ILLEGAL_VALUE, "after all");
    };
    for (auto* hook : {&hooks.after_update, &hooks.after_store})
        for (const bool with_delete : {false, true}) {
            deletes = with_delete;
            *hook = make_and_fail;
            EXPECT_EQ(failure([&] { world.update(a, {text(prop::label, "x")}); }), "10 after all");
            *hook = {};
            tqlengine::RequestContext request = world.context();
            EXPECT_EQ(failure([&] {
                          held->tqlDelete({{}, {}, false, request});
                      }),
                      "1 1.77 not found")
                << "whoever holds it finds it deleted";
            held.reset();
            EXPECT_EQ(dump(), before);
            EXPECT_EQ(memory(), in_memory);
            EXPECT_EQ(world.fault(), "");
        }
    EXPECT_EQ(world.create(a, cls::Domain, {text(prop::name, "made")}, 0, made), made);
}

TEST_F(FaultTest, RecordsRewrittenBesideAWriteGoWithIt) {
    const NodeId a = folder(kRootId, "a");
    const NodeId b = folder(a, "b");
    const std::string before = dump();
    const std::string in_memory = memory();
    bool fails = true;
    const auto label = [&](const NodeId& id, size_t length) {
        const ObjectHandlerRef handler = world.store->resolver().find_stored(id);
        handler->rewrite_records([&](mdb::ObjectStore& objects, mdb::dobj& image) {
            objects.update_property(
                image, mdb::PropertyString(prop::label, std::string(length, 'k')), true, false);
        });
    };
    // The parent first, the object that is being written, and the parent again in another place.
    const auto rewrite = [&](ObjectHandler& handler) {
        label(handler.parent_id(), 200);
        if (handler.is_stored()) label(handler.node_id(), 300);
        label(handler.parent_id(), 500);
        if (fails) throw errors::tql(errors::ERR_ILLEGAL_VALUE, "hook");
    };
    const std::function<void()> writes[] = {
        [&] { folder(b, "new"); },
        [&] { world.update(b, {number(prop::order, 6)}); },
        [&] { world.update(b, {object(prop::parentId, kRootId)}); },
    };
    for (auto* hook : {&hooks.after_update, &hooks.after_store})
        for (const auto& write : writes) {
            *hook = rewrite;
            EXPECT_EQ(failure(write), "10 hook");
            *hook = {};
            EXPECT_EQ(dump(), before);
            EXPECT_EQ(memory(), in_memory);
            EXPECT_EQ(world.fault(), "");
        }
    fails = false;
    hooks.after_store = rewrite;
    world.update(b, {number(prop::order, 6)});
    EXPECT_EQ(world.fault(), "");
    const std::string after = dump();
    world.open();
    EXPECT_EQ(dump(), after);
    EXPECT_EQ(world.value(a, prop::label).size(), 502U);
    EXPECT_EQ(world.value(b, prop::label).size(), 302U);
}

TEST_F(SmallFaultTest, AFullDatabaseFailsOneRequestAndNoMore) {
    std::string failed;
    std::string before;
    NodeId parent = kRootId;
    NodeId last;
    for (int i = 0; i < 2000 && failed.empty(); ++i) {
        if (i % 20 == 0 && i > 0) parent = last;
        before = memory();
        failed = failure([&] {
            last = world.create(parent, cls::Domain,
                                {text(prop::name, fmt::format("f{}", i)),
                                 text(prop::label, std::string(600, 'x'))});
        });
    }
    EXPECT_EQ(failed, "14 No free blocks in meta database");
    EXPECT_EQ(memory(), before);
    EXPECT_EQ(world.fault(), "");
    const std::string all = dump();
    world.open();
    EXPECT_EQ(dump(), all);
}

TEST(DamageTest, ADamagedIndexFailsTheRequestsThatMeetIt) {
    TestStore world({.block = 1024, .journal = 256 * 1024, .capacity = 4 << 20});
    std::vector<NodeId> all;
    for (int i = 0; i < 150; ++i) all.push_back(world.domain(kRootId, fmt::format("f{}", i)));
    const NodeId middle = all[75];
    world.database->journal().checkpoint_and_flip();
    world.close();

    // Of both indexes the leaves that hold the object: as a key, and as a child of the root.
    constexpr size_t kBlock = 1024;
    const auto key_of = [](const NodeId& id) {
        std::string key(8, '\0');
        for (int i = 0; i < 4; ++i) {
            key[i] = static_cast<char>(id.first >> (24 - 8 * i));
            key[4 + i] = static_cast<char>(id.second >> (24 - 8 * i));
        }
        return key;
    };
    std::fstream file(world.dir.file("db"), std::ios::in | std::ios::out | std::ios::binary);
    std::string block(kBlock, '\0');
    int damaged = 0;
    for (uint64_t at = 0; file.seekg(at) && file.read(block.data(), kBlock); at += kBlock) {
        if (block.compare(0, 4, "LEAF") != 0) continue;
        const std::string root = key_of(kRootId);
        const bool is_last = block.compare(8, 4, std::string(4, '\0')) == 0;
        const bool lists_root = block.compare(16, 8, root) == 0 &&
                                block.compare(16 + 16 * 20, 8, root) == 0 && !is_last;
        if (!lists_root && block.find(key_of(middle), 16) == block.npos) continue;
        file.seekp(at) && file.write("XXXX", 4);
        ++damaged;
    }
    file.close();
    ASSERT_GE(damaged, 2);

    world.open();
    const auto fails = [&](const std::function<void()>& request) {
        return failure(request).starts_with("14 ");
    };
    EXPECT_TRUE(fails([&] { static_cast<void>(world.find(middle)); }));
    EXPECT_TRUE(fails([&] { static_cast<void>(world.children(kRootId)); }));
    EXPECT_TRUE(fails([&] {
        world.create(kRootId, cls::Domain, {text(prop::name, "new")}, 0, NodeId{2, 1});
    }));
    EXPECT_TRUE(
        fails([&] { world.create(all.front(), cls::Domain, {text(prop::name, "x")}, 0, middle); }));
    EXPECT_TRUE(world.find(all.front())) << "in another leaf";
}
