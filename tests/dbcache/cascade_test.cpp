// The background delete: what stands below a deleted object goes step by step, whatever comes
// between two steps.
#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <set>

#include "dbcache/class_table.h"
#include "dbcache/detail/record_writer.h"
#include "mdb/index_layout.h"
#include "support/test_store.h"
#include "util/byte_order.h"

using namespace dbcache_test;
using dbcache::kFinishedTombstones;
using dbcache::kFreshTombstones;
using dbcache::kRootId;

namespace {

constexpr uint32_t kNoSeries = 0xFFFFFFFF;

// clang-format off
constexpr dbcache::PropertyRow kRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K | dbcache::X},
    {.number = prop::inherits, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::active, .kind = dbcache::kind_t::boolean, .flags = dbcache::X},
    {.number = prop::tsdbIndex, .kind = dbcache::kind_t::series, .flags = dbcache::N | dbcache::X},
    {.number = prop::tsdbIncident, .kind = dbcache::kind_t::series, .flags = dbcache::N | dbcache::X},
    {.number = prop::alertNotifyObject, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
};
constexpr dbcache::ChildRow kChildren[] = {{cls::Domain, nodetype::Domain},
                                           {cls::MountPoint, nodetype::MountPoint}};
// clang-format on

void declare(dbcache::SchemaTable& table) {
    for (const auto& [type, class_number] : {std::pair{nodetype::Domain, cls::Domain},
                                             std::pair{nodetype::MountPoint, cls::MountPoint}})
        table.registerSchema(std::make_unique<dbcache::TableSchema<dbcache::NodetypeSchema>>(
            dbcache::ClassTable{.nodetype = type,
                                .tql_class = class_number,
                                .properties = kRows,
                                .children = kChildren,
                                .sibling_name = prop::name}));
    table.seal();
}

tql::value_t version(uint32_t property, const tql::version_t& value) {
    return std::make_unique<tql::property_version_t>(property, value);
}

class CascadeTest : public ::testing::Test {
  protected:
    CascadeTest() {
        logging::set_all_levels(logging::level_t::debug);
        resume();
    }
    ~CascadeTest() override { logging::set_all_levels(logging::level_t::info); }
    void TearDown() override { EXPECT_EQ(fault(), ""); }

    /// Like world.fault(), but a dropped index may have left its blocks.
    std::string fault() {
        if (!drops_indexes) return world.fault();
        mdb::VerifyOptions options;
        options.lost_index_blocks = true;
        return mdb::verify(*world.database, options).text();
    }

    dbcache::DbcacheIdResolver& resolver() { return world.store->resolver(); }
    void resume() { resolver().resume(); }
    /// Drops all as a killed server does, and starts again with other ids.
    void restart() {
        world.open(first_id -= 10'000);
        resume();
    }
    /// At most `steps`; gives how many there were.
    size_t work(size_t steps = 10'000) {
        size_t done = 0;
        while (done < steps && resolver().has_work()) {
            resolver().doWork();
            ++done;
        }
        return done;
    }

    NodeId make(const NodeId& parent, const std::string& name, const Values& more = {}) {
        Values values = more;
        values.push_back(text(prop::name, name));
        values.push_back(flag(prop::active, true));
        return world.create(parent, cls::Domain, values);
    }
    /// A copy of an object that has its origin at a master.
    NodeId make_copy(const NodeId& parent, const std::string& name, uint32_t master) {
        return make(
            parent, name,
            {object(prop::masterId, {9, master}), version(prop::masterVersion, {3, master})});
    }
    void set_series(const NodeId& id, uint32_t property, uint32_t block) {
        const mdb::block_handle_t place = *world.indexes->unique_find(mdb::node_id_index, id);
        world.store->cache().cache_remove(place, true);
        mdb::dobj image = world.objects->begin_object_update(place);
        world.objects->update_property(image, mdb::PropertySeries(property, block), true, false);
        static_cast<void>(world.objects->commit_object_update(image));
    }
    [[nodiscard]] bool is_stored(const NodeId& id) {
        return world.indexes->unique_find(mdb::node_id_index, id).has_value();
    }
    [[nodiscard]] mdb::block_handle_t place(const NodeId& id) {
        return world.indexes->unique_search(mdb::node_id_index, id);
    }
    void change(const std::function<void()>& what) {
        mdb::Transaction transaction(world.database->journal());
        what();
        transaction.commit(false);
    }
    /// Makes the first pointer of the index's root lead to the root object's block.
    void alias(uint32_t index) {
        std::array<std::byte, 4> bytes;
        util::store_be32(bytes.data(), place(kRootId).block);
        change([&] {
            world.database->journal().journal_update(
                bytes.data(), bytes.size(),
                world.database->store().block_offset(world.database->header().index_root(index)) +
                    mdb::node_layout::ptr0);
        });
    }
    /// What `id` names as its parent; null when it isn't stored.
    [[nodiscard]] NodeId stored_parent(const NodeId& id) {
        const auto place = world.indexes->unique_find(mdb::node_id_index, id);
        if (!place) return {};
        mdb::PropertyNodeId parent(prop::parentId);
        parent.read(world.objects->load_object(*place));
        return parent.value;
    }
    [[nodiscard]] size_t entries_below(const NodeId& parent) {
        size_t count = 0;
        for (auto it = world.indexes->non_unique_search(mdb::parent_id_index, parent);
             it.at_searched_key(); world.indexes->iterator_next(it))
            ++count;
        return count;
    }
    /// The lines of the walk since the last call, without names of loggers and levels.
    std::vector<std::string> lines() {
        std::vector<std::string> all;
        for (const std::string& line : world.log)
            if (line.find("ascading") != line.npos || line.find("DbcacheIdResolver") != line.npos ||
                line.find("Pushing") != line.npos || line.find("Deleting") != line.npos)
                all.push_back(line);
        world.log.clear();
        return all;
    }

    bool drops_indexes = false;
    uint32_t first_id = 4'000'000'000;
    mdb::block_handle_t taken_out;
    TestStore world{TestStore::Sizes{}, declare};
};

}  // namespace

TEST_F(CascadeTest, EachStepGoesDownOrRemovesOneObject) {
    const NodeId deleted = make(kRootId, "top");
    const std::string top = deleted.to_string(), below = make(deleted, "below").to_string();
    static_cast<void>(lines());
    world.remove(deleted);
    using Lines = std::vector<std::string>;
    const auto expect = [&](const Lines& wanted) {
        const Lines found = lines();
        ASSERT_EQ(found.size(), wanted.size()) << fmt::format("{}", fmt::join(found, "\n"));
        for (size_t i = 0; i < wanted.size(); ++i)
            EXPECT_TRUE(found[i].ends_with(wanted[i])) << found[i] << " for " << wanted[i];
    };
    const auto step = [](size_t depth, const std::string& id) {
        return fmt::format("[debug] DbcacheIdResolver::doWork() [{}] top: {}", depth, id);
    };
    expect({"[debug] Initiating background cascading delete"});
    for (const auto& wanted :
         std::vector<Lines>{{step(1, "0.5"), "[debug] Pushing child " + top},
                            {step(2, top), "[debug] Pushing child " + below},
                            {step(3, below), "[debug] Deleting object " + below},
                            {step(2, top), "[debug] Deleting object " + top,
                             "[debug] Background cascadingDelete on type 0"},
                            {step(1, "0.5"), "[debug] Background cascading delete done"}}) {
        ASSERT_TRUE(resolver().has_work());
        resolver().doWork();
        expect(wanted);
    }
    EXPECT_FALSE(resolver().has_work());
    EXPECT_DEATH(resolver().doWork(), "doWork\\(\\) met empty stack");
    EXPECT_DEATH(dbcache::DbcacheIdResolver(*world.store, 1, 1),
                 "Constructing more than one DbcacheIdResolver");
}

TEST_F(CascadeTest, TombstonesStayForThoseWhoCopyAndDuringTheStart) {
    const NodeId mount = world.create(kRootId, cls::MountPoint, {text(prop::name, "mount")});
    const NodeId copied = make_copy(mount, "copied", 1);
    const NodeId below = make_copy(copied, "below", 2);
    const NodeId plain = make(mount, "plain");
    const NodeId forgotten = make_copy(mount, "forgotten", 3);
    world.remove(copied);
    world.remove(plain);
    world.remove(forgotten, true);
    work();
    EXPECT_EQ(stored_parent(copied), kFinishedTombstones);
    for (const NodeId& gone : {below, plain, forgotten}) EXPECT_FALSE(is_stored(gone));
    EXPECT_FALSE(world.find(copied));
    EXPECT_EQ(fault(), "");

    // Before the end of the start nothing is known to be unneeded.
    const NodeId early = make(kRootId, "early");
    const NodeId early_child = make(early, "child");
    world.open();
    world.remove(early);
    work();
    EXPECT_EQ(stored_parent(early), kFinishedTombstones);
    EXPECT_FALSE(is_stored(early_child));
    resume();
    EXPECT_FALSE(resolver().has_work());
    EXPECT_EQ(stored_parent(copied), kFinishedTombstones);
}

TEST_F(CascadeTest, SeriesAreDroppedInOrderOnceTheirObjectIsGone) {
    const NodeId top = make(kRootId, "top");
    const NodeId both = make(top, "both");
    const NodeId one = make(both, "one");
    const NodeId none = make(top, "none");
    set_series(top, prop::tsdbIndex, 0);
    set_series(top, prop::tsdbIncident, 71);
    set_series(both, prop::tsdbIncident, 5);
    set_series(both, prop::tsdbIndex, 6);
    set_series(one, prop::tsdbIndex, kNoSeries);
    set_series(one, prop::tsdbIncident, 4);
    {
        dbcache::StoreTransaction outer(*world.store);
        world.remove(top);
        EXPECT_TRUE(world.dropped.empty());
    }
    EXPECT_TRUE(world.dropped.empty()) << "the delete was undone";
    EXPECT_TRUE(world.find(top));
    EXPECT_EQ(work(), 1U);

    world.remove(top);
    EXPECT_EQ(world.dropped, (std::vector<uint32_t>{0, 71}));
    world.dropped.clear();
    work();
    EXPECT_EQ(world.dropped, (std::vector<uint32_t>{4, 6, 5}));
    EXPECT_FALSE(is_stored(none));
}

TEST_F(CascadeTest, AStoreOfSeriesThatIsAwayHoldsNothingUp) {
    const NodeId top = make(kRootId, "top");
    const NodeId below = make(top, "below");
    for (const NodeId& id : {top, below}) {
        set_series(id, prop::tsdbIndex, 40 + id.second % 2);
        set_series(id, prop::tsdbIncident, 50 + id.second % 2);
    }
    world.drop_fails = true;
    world.remove(top);
    work();
    EXPECT_FALSE(is_stored(top));
    EXPECT_FALSE(is_stored(below));
    for (const uint32_t block : {40, 41, 50, 51}) {
        const std::string line =
            fmt::format("[error] Time series {}, which no object needs, stays behind: away", block);
        EXPECT_TRUE(std::any_of(world.log.begin(), world.log.end(), [&](const std::string& one) {
            return one.ends_with(line);
        })) << line;
    }
}

TEST_F(CascadeTest, AnInterruptedWalkGoesOnWhereItWas) {
    constexpr size_t kObjects = 9;
    for (size_t cut = 0; cut <= 2 * kObjects; ++cut) {
        for (const bool orderly : {false, true}) {
            SCOPED_TRACE(fmt::format("{} steps, orderly {}", cut, orderly));
            const NodeId top = make(kRootId, "top");
            std::vector<NodeId> all{top};
            while (all.size() < kObjects)
                all.push_back(make(all[all.size() / 2], fmt::format("{}", all.size())));
            static_cast<void>(lines());
            world.remove(top);
            work(cut);
            const auto stored = [&] {
                return std::count_if(all.begin(), all.end(),
                                     [&](const NodeId& id) { return is_stored(id); });
            };
            const auto left = stored();
            const bool unfinished = left > 0;
            static_cast<void>(lines());
            if (orderly) {
                const bool had_work = resolver().has_work();
                resolver().pause();
                EXPECT_FALSE(resolver().has_work());
                const auto told = lines();
                ASSERT_EQ(told.size(), had_work ? 1U : 0U);
                if (had_work) {
                    EXPECT_TRUE(told[0].ends_with("[debug] Incomplete cascading delete, pausing"));
                }
            }
            world.open();
            EXPECT_EQ(stored(), left);
            for (const NodeId& id : all) EXPECT_FALSE(world.find(id)) << id.to_string();
            static_cast<void>(lines());
            resume();
            const auto told = lines();
            ASSERT_EQ(told.size(), unfinished ? 1U : 0U);
            if (unfinished) {
                EXPECT_TRUE(told[0].ends_with("[debug] Incomplete cascading delete, resuming"));
            }
            work();
            EXPECT_EQ(stored(), 0);
            EXPECT_EQ(fault(), "");
        }
    }
}

TEST_F(CascadeTest, NeitherMemoryNorJournalGrowsWithTheSubtree) {
    const NodeId top = make(kRootId, "top");
    NodeId branch;
    constexpr size_t kObjects = 2000;
    for (size_t n = 0; n < kObjects; ++n) {
        if (n % 100 == 0) branch = make(top, fmt::format("branch {}", n));
        make(branch, fmt::format("{}", n));
    }
    world.remove(top);
    const uint64_t file_bytes = world.database->store().file_length();
    const uint32_t live = world.store->live_handlers();
    size_t steps = 0;
    for (; resolver().has_work(); ++steps) {
        resolver().doWork();
        ASSERT_LE(world.store->live_handlers(), live);
        ASSERT_EQ(world.store->referenced_handlers(), 0U);
    }
    // Down and away for each object, and the end.
    EXPECT_EQ(steps, 2 * (kObjects + kObjects / 100 + 1) + 1);
    EXPECT_LE(world.store->live_handlers(), 1U) << "the root at most";
    EXPECT_EQ(world.database->store().file_length(), file_bytes);
    EXPECT_EQ(world.store->sibling_keys().entries(), 0U);
}

TEST_F(CascadeTest, DamageIsToldOfAndTheWalkEnds) {
    const NodeId live = make(kRootId, "live");
    const auto add_entry = [&](const NodeId& key, mdb::block_handle_t value) {
        change([&] { world.indexes->non_unique_insert(mdb::parent_id_index, key, value); });
    };
    const auto remove_entry = [&](const NodeId& key, mdb::block_handle_t value) {
        change([&] { world.indexes->non_unique_delete(mdb::parent_id_index, key, value); });
    };
    using Damage = std::function<void(const NodeId& top, const NodeId& leaf)>;
    const struct {
        const char* name;
        const char* line;
        Damage harm, mend;
    } cases[] = {
        {"an object that index 0 doesn't know", "not found during background cascading delete",
         [&](const NodeId&, const NodeId& leaf) {
             taken_out = place(leaf);
             change([&] { world.indexes->unique_delete(mdb::node_id_index, leaf); });
         },
         [&](const NodeId&, const NodeId& leaf) {
             change(
                 [&] { world.indexes->unique_update(mdb::node_id_index, leaf, taken_out, false); });
         }},
        {"an entry that leads to a living object", "its parent is 0.1, not",
         [&](const NodeId& top, const NodeId&) { add_entry(top, place(live)); },
         [&](const NodeId& top, const NodeId&) { remove_entry(top, place(live)); }},
        {"an object below itself", "stands below itself",
         [&](const NodeId& top, const NodeId& leaf) { add_entry(leaf, place(top)); },
         [&](const NodeId& top, const NodeId& leaf) { remove_entry(leaf, place(top)); }},
        {"an entry that leads nowhere", "delete leaves what lies at 3:4000",
         [&](const NodeId& top, const NodeId&) {
             add_entry(top, {3, 4000});
         },
         [&](const NodeId& top, const NodeId&) {
             remove_entry(top, {3, 4000});
         }},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        const NodeId top = make(kRootId, "top");
        const NodeId leaf = make(make(top, "middle"), "leaf");
        const NodeId sibling = make(top, "sibling");
        const NodeId other = make(kRootId, "other");
        world.remove(top);
        world.remove(other);
        one.harm(top, leaf);
        static_cast<void>(lines());
        EXPECT_LT(work(100), 100U);
        const auto told = lines();
        EXPECT_EQ(std::count_if(told.begin(), told.end(),
                                [&](const std::string& line) {
                                    return line.find("[error]") != line.npos &&
                                           line.find(one.line) != line.npos;
                                }),
                  1)
            << fmt::format("{}", fmt::join(told, "\n"));
        EXPECT_FALSE(is_stored(sibling));
        EXPECT_FALSE(is_stored(other));
        EXPECT_TRUE(is_stored(top)) << "else nobody came to what is left any more";
        EXPECT_FALSE(world.find(leaf));
        EXPECT_TRUE(world.find(live));
        // Once it is mended the next walk takes the rest.
        one.mend(top, leaf);
        restart();
        work();
        EXPECT_EQ(entries_below(kFreshTombstones), 0U);
        EXPECT_FALSE(is_stored(leaf));
        EXPECT_EQ(fault(), "");
    }
}

/// Beside tombstones of both kinds and their subtrees, with keys for all indexes.
TEST_F(CascadeTest, ARebuiltIndexHoldsWhatHangsOnTombstones) {
    drops_indexes = true;
    for (const auto& [n, aliased] : {std::pair{mdb::active_parent_index, true},
                                     {mdb::active_parent_index, false},
                                     {mdb::inherits_index, false},
                                     {mdb::master_id_index, false},
                                     {mdb::alert_notify_index, false}}) {
        SCOPED_TRACE(fmt::format("index {}, aliased {}", static_cast<uint32_t>(n), aliased));
        const NodeId mount = world.create(
            kRootId, cls::MountPoint,
            {text(prop::name, fmt::format("{}{}", static_cast<uint32_t>(n), aliased))});
        const auto subtree = [&](const std::string& name, uint32_t master) {
            const NodeId top = make_copy(mount, name, master);
            for (uint32_t i = 0; i < 40; ++i)
                make(top, fmt::format("{}", i),
                     {object(prop::inherits, mount), object(prop::alertNotifyObject, mount),
                      object(prop::masterId, {8, master})});
            return top;
        };
        const NodeId finished = subtree("finished", 1), waiting = subtree("waiting", 2);
        const NodeId half = subtree("half gone", 3), live = subtree("live", 4);
        world.remove(finished);
        work();
        world.remove(half);
        work(20);
        world.remove(waiting);
        ASSERT_EQ(stored_parent(finished), kFinishedTombstones);
        ASSERT_EQ(stored_parent(half), kFreshTombstones);
        if (aliased) alias(n);
        while (!aliased && world.indexes->index_count() > n)
            world.indexes->drop_index(world.indexes->index_count() - 1);
        world.open();
        EXPECT_EQ(world.indexes->index_count(), mdb::kMaxIndexes);
        EXPECT_EQ(fault(), "");
        resume();
        work();
        for (const NodeId& top : {half, waiting}) {
            EXPECT_EQ(stored_parent(top), kFinishedTombstones);
            EXPECT_EQ(entries_below(top), 0U);
        }
        EXPECT_EQ(entries_below(live), 40U);
        EXPECT_EQ(fault(), "");
    }
}
