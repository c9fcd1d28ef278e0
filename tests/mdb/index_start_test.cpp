// What a power cut during the start of the indexes, or while objects are made, leaves to the next
// start.
#include <gtest/gtest.h>
#include <memory>
#include <optional>

#include "log/log.h"
#include "mdb/database.h"
#include "mdb/format.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "mdb/verify.h"
#include "support/fake_clock.h"
#include "support/rng.h"
#include "support/sim_disk.h"

namespace {

using mdb::mark_t;
using support::SimDisk;

constexpr uint32_t kInTree = 120;
/// With those that hang on no object.
constexpr uint32_t kObjects = 150;
constexpr uint32_t kFormat = 12;

class Store {
  public:
    Store() {
        logging::set_all_levels(logging::level_t::off);
        mdb::FormatOptions options;
        options.database_path = "db";
        options.journal_path = "journal";
        options.block_size = 1024;
        options.journal_size_bytes = 48 * 1024;
        options.capacity_bytes = 1 << 20;
        mdb::format_database(disk, options);
        open();
        for (uint32_t n = 1; n <= kInTree; ++n) create(n);
        // As tombstones do, and what is below them.
        for (uint32_t n = kInTree + 1; n <= kObjects; ++n)
            create(n, n <= kInTree + 10 ? NodeId{7, n % 2} : NodeId{0, n - 10});
    }

    void create(uint32_t n) { create(n, {0, n / 2}); }
    void create(uint32_t n, NodeId parent) {
        mdb::Serializer& serializer = database->serializer();
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyNodeId(0, {0, n}));
        serializer.serial_add(mdb::PropertyNodeId(2, parent));
        serializer.serial_add(mdb::PropertyBool(502, n % 3 == 0));
        serializer.serial_add(mdb::PropertyNodeId(59, {0, 7}));
        serializer.serial_add(mdb::PropertyNodeId(3800, {9, n}));
        static_cast<void>(objects->store_object({}));
    }

    void open() {
        close();
        mdb::Settings settings;
        settings.database_path = "db";
        settings.buffer_blocks = 64;
        database = std::make_unique<mdb::Database>(settings, disk, clock);
        indexes.emplace(*database);
        indexes->init_required_indexes();
        objects.emplace(*database, *indexes);
    }
    void start() { mdb::start_indexes(*indexes, indexes->unique_search(0, {0, 1}), kFormat); }
    void close() {
        objects.reset();
        indexes.reset();
        database.reset();
    }
    [[nodiscard]] std::string faults(bool with_lost_blocks = false) {
        mdb::VerifyOptions options;
        options.lost_index_blocks = with_lost_blocks;
        return mdb::verify(*database, options).text();
    }

    SimDisk disk;
    support::FakeClock clock;
    std::unique_ptr<mdb::Database> database;
    std::optional<mdb::IndexTable> indexes;
    std::optional<mdb::ObjectStore> objects;
};

/// Opens and starts with the power failing at the `n`-th call; false when it didn't.
bool cut_start(Store& store, uint64_t n, uint64_t seed) {
    store.close();
    store.disk.cut_at(n, seed);
    try {
        store.open();
        store.start();
    } catch (const SimDisk::PowerCut&) {
    }
    const bool cut = store.disk.cut();
    store.close();
    store.disk.restart();
    return cut;
}

TEST(IndexStart, ACutLeavesNoIndexInPartAndNoBlockLost) {
    Store whole;
    const support::DiskImage before = whole.disk.seen();
    whole.close();
    support::Rng rng(1);
    for (uint64_t n = 1; !testing::Test::HasFailure(); ++n) {
        SCOPED_TRACE(n);
        whole.close();
        whole.disk.load(before);
        const bool cut = cut_start(whole, n, n);
        // At times the next start is cut too.
        if (cut && rng.chance(30)) (void)cut_start(whole, 1 + rng.below(n + 10), n + 1000);
        whole.open();
        whole.start();
        EXPECT_EQ(whole.indexes->index_count(), mdb::kMaxIndexes);
        EXPECT_EQ(whole.faults(), "");
        if (cut) continue;
        EXPECT_GT(n, 30U);
        break;
    }
}

TEST(IndexStart, ARootThatIsNamedButNotMadeIsNotHandedOut) {
    Store store;
    // A crash between the header and the node of a new index leaves this.
    mdb::Header header = store.database->header();
    const uint32_t root = store.database->allocator().allocate_empty_block(0, true);
    header.add_index(root);
    store.database->write_header(header);
    store.open();
    EXPECT_NE(store.database->allocator().allocate_empty_block(0, true), root);
    store.start();
    EXPECT_EQ(store.database->header().index_root(2), root);
    EXPECT_EQ(store.faults(), "");
}

TEST(ObjectCreation, ACutLeavesNoSlotWithoutItsObject) {
    Store store;
    const support::DiskImage before = store.disk.seen();
    for (uint64_t n = 1; !testing::Test::HasFailure(); ++n) {
        SCOPED_TRACE(n);
        store.close();
        store.disk.load(before);
        store.open();
        store.disk.cut_at(n, n);
        try {
            for (uint32_t object = kObjects + 1; object <= kObjects + 12; ++object)
                store.create(object);
        } catch (const SimDisk::PowerCut&) {
        }
        const bool cut = store.disk.cut();
        store.close();
        store.disk.restart();
        store.open();
        EXPECT_EQ(store.faults(), "");
        if (cut) continue;
        EXPECT_GT(n, 12U);
        break;
    }
}

}  // namespace
