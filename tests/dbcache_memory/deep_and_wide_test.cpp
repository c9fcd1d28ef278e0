// A tree that is very deep and one that is very wide: whatever is done to them takes no more of the
// stack than with any other tree, and no more memory than what is asked for takes itself.
//
// Each test runs in a thread with a small stack, where anything that recurses over 10,000 levels
// ends with a fault.
#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>

#include "dbcache/accounting_rebuild.h"
#include "dbcache/mark_rebuild.h"
#include "dbcache/mark_verify.h"
#include "dbcache/stored_tree.h"
#include "failing_memory.h"
#include "support/test_store.h"
#include "tql/enumerations.h"
#include "tql/query_text.h"
#include "tqlengine/requests.h"

namespace dbcache_test {
namespace {

constexpr uint32_t kLevels = 10'000;
/// A write that changes the counters of all above it is one transaction, which the journal bounds.
constexpr uint32_t kCountedLevels = 1'000;
constexpr uint32_t kChildren = 100'000;
constexpr size_t kStackBytes = 512 << 10;
/// The ids of the objects of the chain and of the children, which are put down one by one.
constexpr uint32_t kFirstWord = 8;

void run_with_small_stack(std::function<void()> work) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStackBytes), 0);
    pthread_t thread;
    const auto start = [](void* function) -> void* {
        (*static_cast<std::function<void()>*>(function))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, start, &work), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

class DeepAndWideTest : public ::testing::Test {
  protected:
    // Nothing leaves the cache, so that what it holds is no part of what a select takes or gives.
    DeepAndWideTest() {
        world.store->cache().cache_set_limits(2 * kChildren, 2 * kChildren, 2 * kChildren);
    }

    /// As a server put it down long ago, without the cost of a request for each.
    NodeId put_down(uint32_t number, const NodeId& parent) {
        const NodeId id{kFirstWord, number};
        mdb::Serializer& writer = world.database->serializer();
        writer.serial_reset();
        writer.serial_add(mdb::PropertyNodeId(prop::id, id));
        writer.serial_add(mdb::PropertyNodeId(prop::parentId, parent));
        writer.serial_add(mdb::PropertyVersion(prop::version, {}));
        writer.serial_add(dbcache::PropertyNodeType(
            prop::nodeType, static_cast<dbcache::node_type_t>(nodetype::Domain)));
        writer.serial_add(mdb::PropertyString(prop::name, std::to_string(number)));
        static_cast<void>(world.objects->store_object({}));
        return id;
    }

    dbms::Tql_Select_Data request(const std::string& pattern, uint32_t flags = 0) {
        return {{{0, 1}}, tql::parse_pattern(pattern), flags, 0};
    }
    tqlengine::SelectAnswer select(const std::string& pattern) {
        tqlengine::RequestContext context = world.context();
        return process_select(request(pattern), context, report);
    }
    /// How many objects a select gives, as "STATUS: OBJECTS in TREES". While it runs it must not
    /// need more than three times what its answer does, and `room_bytes`.
    std::string selected(const std::string& pattern, size_t room_bytes) {
        const size_t before = Memory::get().bytes();
        Memory::get().forget_peak();
        const tqlengine::SelectAnswer answer = select(pattern);
        const size_t held = std::max(Memory::get().bytes(), before) - before;
        EXPECT_LE(Memory::get().peak() - before, 3 * held + room_bytes) << pattern;
        return fmt::format("{}: {} in {}", answer.status, report.results, answer.results.size());
    }

    void subscribe(uint32_t number, const std::string& pattern) {
        watched[number] =
            request(pattern, tqlengine::kSelectSubscribe | tqlengine::kSelectPatchable);
        world.engine->subscriptions().watch(number, {{0, 1}}, watched[number].pattern, true);
    }
    /// What is due, each as "SUBSCRIPTION LEVELS ".
    std::string due() {
        std::string text;
        while (const auto patch = world.engine->subscriptions().take_patch()) {
            tqlengine::RequestContext context = world.context();
            const auto tree =
                process_patch(patch->object, watched.at(patch->subscription), context);
            size_t levels = 0;
            for (const tqlengine::ResultNode* at = tree.get(); at != nullptr; ++levels)
                at = at->children.empty() ? nullptr : at->children.entries().front().node.get();
            text += fmt::format("{} {} ", patch->subscription, levels);
        }
        return text;
    }

    /// The background delete; gives its steps.
    size_t delete_to_the_end() {
        size_t steps = 0;
        for (; world.store->resolver().has_work(); ++steps) world.store->resolver().doWork();
        return steps;
    }
    dbcache::Store::Parts parts() {
        return {.database = *world.database,
                .objects = *world.objects,
                .indexes = *world.indexes,
                .schemas = world.schemas,
                .clock = world.clock,
                .drop_backend_block = {},
                .create_backend_block = {}};
    }
    std::string faults() {
        const auto marks = dbcache::make_mark_check();
        const auto counters = dbcache::make_accounting_check();
        mdb::VerifyOptions options;
        options.checks = {marks.get(), counters.get()};
        return world.fault() + mdb::verify(*world.database, options).text();
    }

    TestStore world{TestStore::Sizes{.journal = 64 << 20, .capacity = 256 << 20}};
    tqlengine::SelectReport report;
    std::map<uint32_t, dbms::Tql_Select_Data> watched;
};

TEST_F(DeepAndWideTest, AChainOfTenThousandDomains) {
    run_with_small_stack([this] {
        const NodeId top = world.domain(dbcache::kRootId, "top");
        NodeId last = top;
        NodeId middle;
        for (uint32_t level = 2; level <= kLevels; ++level) {
            last = world.domain(last, "below");
            if (level == kCountedLevels) middle = world.node(last, "counted");
        }
        const NodeId node = world.node(last, "node");
        const NodeId aside = world.domain(dbcache::kRootId, "aside");

        // The walk's own stack; handlers are the cache's, and stay there.
        static_cast<void>(select("Domain*"));
        constexpr size_t kRoom = 512 * kLevels;
        EXPECT_EQ(selected("Domain*[name]", kRoom), fmt::format("0: {} in 1", kLevels + 2));
        EXPECT_EQ(selected("Domain*^ > Node[name]", kRoom), "0: 3 in 1");
        EXPECT_EQ(selected(fmt::format("Domain* > Node{{id = \"{}\"}}", node), kRoom),
                  fmt::format("0: {} in 1", kLevels + 2));
        EXPECT_EQ(selected("Domain*$ > ( Domain{name = \"below\"} : Node )", kRoom),
                  fmt::format("0: {} in 1", kLevels + 4));

        subscribe(1, "Domain* > Node[name]");
        subscribe(2, "Domain*^ > Node[name]");
        world.update(node, {text(prop::name, "renamed")});
        EXPECT_EQ(due(), fmt::format("1 {0} 2 {0} ", kLevels + 2));

        // Counters and marks go all the way up.
        world.create(tql::id_t{middle.first, middle.second, 0}, cls::Check,
                     {text(prop::remoteName, "host"),
                      std::make_unique<tql::property_enum_t>(
                          prop::remoteType, tql::enumeration::RemcheckType, 2, 0)});
        EXPECT_EQ(faults(), "");

        world.update(top, {object(prop::parentId, aside)});
        due();
        EXPECT_EQ(faults(), "");
        world.open();
        dbcache::rebuild_accounting(parts());
        dbcache::StoredTree tree(parts());
        dbcache::build_mark_list(tree, prop::activeMark);
        EXPECT_EQ(faults(), "");
        world.remove(top);
        EXPECT_LE(delete_to_the_end(), 2 * kLevels + 10);
        EXPECT_EQ(faults(), "");
        EXPECT_EQ(selected("Domain*", kRoom), "0: 2 in 1");
    });
}

TEST_F(DeepAndWideTest, ADomainWithAHundredThousandChildren) {
    run_with_small_stack([this] {
        const NodeId wide = world.domain(dbcache::kRootId, "wide");
        for (uint32_t n = 1; n <= kChildren; ++n) put_down(n, wide);
        static_cast<void>(select("Domain*"));
        constexpr size_t kRoom = 16 * kChildren;  // the listing
        EXPECT_EQ(selected("Domain*[name]", kRoom), fmt::format("0: {} in 1", kChildren + 2));
        EXPECT_EQ(selected("Domain*^ > Domain{name = \"777\"}", kRoom), "0: 2 in 1");
        EXPECT_EQ(selected("Domain > Domain > Domain{id = \"8.7\"}", 1 << 14), "0: 3 in 1");

        subscribe(1, "Domain*[name]");
        world.update({kFirstWord, 500}, {text(prop::name, "renamed")});
        world.domain(wide, "new");
        EXPECT_EQ(due(), "1 3 1 3 ");

        world.remove(wide);
        EXPECT_LE(delete_to_the_end(), 2 * kChildren + 10);
        EXPECT_EQ(faults(), "");
    });
}

}  // namespace
}  // namespace dbcache_test
