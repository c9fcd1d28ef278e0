#include "mdb/allocator.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "mdb/object_slots.h"
#include "test_database.h"

namespace {

using mdb::dobj;
using mdb::mark_t;
using mdb_test::TestDatabase;

constexpr uint32_t kBlock = TestDatabase::kBlockSize;
/// Header, two roots, one map block.
constexpr uint32_t kFirst = 4;

void mark(mdb::Database& db, uint32_t block, mark_t value) {
    db.store().ensure_block(block);
    mdb::Transaction transaction(db.journal());
    db.allocator().set_mark(block, value);
    transaction.commit();
}

/// Makes `block` an object block with these slots, which must fill it, and gives it a mark.
void fill_block(mdb::Database& db, uint32_t block, const std::vector<mdb::Slot>& slots,
                mark_t value) {
    db.store().ensure_block(block);
    std::vector<std::byte> bytes(kBlock);
    for (const mdb::Slot& slot : slots) mdb::set_slot(bytes, slot);
    mdb::Transaction transaction(db.journal());
    db.journal().journal_update(bytes.data(), kBlock, db.store().block_offset(block));
    db.allocator().set_mark(block, value);
    transaction.commit();
}

dobj allocate(mdb::Database& db, uint32_t hint, uint32_t size) {
    dobj found;
    db.allocator().allocate_space(hint, size, found);
    return found;
}

TEST(Allocator, ClassifiesByFreeBytes) {
    TestDatabase test;
    mdb::Database& db = test.open();
    struct Case {
        std::vector<mdb::Slot> slots;
        mark_t expected;
    };
    const Case cases[] = {
        {{{0, 1024, true}}, mark_t::empty},
        {{{0, 512, true}, {512, 512, true}}, mark_t::empty},
        {{{0, 768, false}, {768, 256, true}}, mark_t::used},
        {{{0, 770, false}, {770, 254, true}}, mark_t::full},
        {{{0, 128, true}, {128, 768, false}, {896, 128, true}}, mark_t::used},
        {{{0, 1024, false}}, mark_t::full},
    };
    for (const Case& c : cases) {
        mdb::BlockBuffer bytes = db.pool().acquire();
        for (const mdb::Slot& slot : c.slots) mdb::set_slot({bytes.data(), kBlock}, slot);
        EXPECT_EQ(db.allocator().classify_block(dobj({9, 0}, std::move(bytes))), c.expected);
    }
}

TEST(Allocator, TakesTheLastFitAndStopsEarly) {
    TestDatabase test;
    mdb::Database& db = test.open();
    fill_block(db, kFirst, {{0, 100, true}, {100, 100, false}, {200, 200, true}, {400, 624, true}},
               mark_t::used);
    EXPECT_EQ(allocate(db, 0, 60).offset, 200U) << "a quarter is free and a fit known: no further";
    EXPECT_EQ(allocate(db, 0, 201).offset, 400U);
    EXPECT_EQ(db.allocator().alloc_cursor(), kFirst);
}

TEST(Allocator, FullBlocksYieldOnlyToAHint) {
    TestDatabase test;
    mdb::Database& db = test.open();
    // Too full, but the request still fits: taken, marked full, and the cursor does not move there.
    fill_block(db, kFirst, {{0, 900, false}, {900, 124, true}}, mark_t::used);
    dobj found = allocate(db, 0, 100);
    EXPECT_EQ(found.handle(), (mdb::block_handle_t{kFirst, 900}));
    EXPECT_EQ(db.allocator().query_mark(kFirst), mark_t::full);
    EXPECT_EQ(db.allocator().alloc_cursor(), 0U);
    EXPECT_EQ(allocate(db, kFirst, 100).handle(), (mdb::block_handle_t{kFirst, 900}));
    found = allocate(db, 0, 100);
    EXPECT_EQ(found.handle(), (mdb::block_handle_t{kFirst + 1, 0}))
        << "an empty block becomes one placeholder";
    EXPECT_EQ(mdb::slot_at({found.data, kBlock}, 0).length, kBlock);
    EXPECT_EQ(db.allocator().query_mark(kFirst + 1), mark_t::used);
    EXPECT_EQ(allocate(db, kFirst, 500).block, kFirst + 1)
        << "a hint that doesn't fit falls back to the cursor";
}

TEST(Allocator, GrowsOnlyInTheFinalSweep) {
    TestDatabase test;
    mdb::Database& db = test.open();
    const uint64_t before = db.store().file_length();
    EXPECT_EQ(before, kFirst * kBlock);
    EXPECT_EQ(allocate(db, 0, 100).block, kFirst);
    EXPECT_EQ(db.store().file_length(), before + kBlock);
    fill_block(db, kFirst, {{0, 1024, false}}, mark_t::full);
    EXPECT_EQ(allocate(db, 0, 1024).block, kFirst + 1) << "from the cursor to the end, then growth";
    EXPECT_THROW((void)allocate(db, 0, 1026), mdb::error_dbnospace);
    EXPECT_EQ(db.store().file_length(), before + 2 * kBlock)
        << "no sweep for what no block can hold";
    db.store().ensure_block(99);
    EXPECT_EQ(db.store().file_length(), 100U * kBlock);
    db.store().ensure_block(100);
    EXPECT_EQ(db.store().file_length(), 120U * kBlock) << "a fifth, in whole blocks";
}

TEST(Allocator, AFullDiskLeavesNoPartOfABlock) {
    TestDatabase test;
    mdb::BackingStore& store = test.open().store();
    const uint64_t length = store.file_length();
    rlimit whole{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &whole), 0);
    const auto before = std::signal(SIGXFSZ, SIG_IGN);
    // Room for two more blocks and a part of a third.
    const rlimit little{length + 2 * kBlock + 100, whole.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
    EXPECT_THROW(store.ensure_block(kFirst + 20), mdb::error_dbnospace);
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &whole), 0);
    std::signal(SIGXFSZ, before);
    EXPECT_EQ(store.file_length(), length + 2 * kBlock) << "what fits is kept";
    EXPECT_EQ(store.file().size(), length + 2 * kBlock);
}

TEST(Allocator, FullMapIsNoSpace) {
    TestDatabase test(256 * 1024, kBlock * kBlock);
    mdb::Database& db = test.open();
    mdb::Transaction transaction(db.journal());
    for (uint32_t block = kFirst; block < kBlock; ++block)
        db.allocator().set_mark(block, mark_t::leaf);
    EXPECT_THROW((void)db.allocator().allocate_empty_block(0, true), mdb::error_dbnospace);
    EXPECT_THROW((void)allocate(db, 0, 8), mdb::error_dbnospace);
    EXPECT_THROW((void)db.allocator().query_mark(kBlock), mdb::error_range);
    EXPECT_THROW(db.allocator().set_mark(kBlock, mark_t::used), mdb::error_range);
}

TEST(Allocator, FreedBlocksWaitForTheCommit) {
    TestDatabase test;
    mdb::Database& db = test.open();
    mark(db, kFirst, mark_t::leaf);
    db.store().ensure_block(20);
    {
        mdb::Transaction outer(db.journal());
        {
            mdb::Transaction inner(db.journal());
            db.allocator().set_mark(kFirst, mark_t::empty);
            inner.commit();
        }
        EXPECT_THROW((void)db.allocator().allocate_empty_block(0, false), mdb::error_dbnospace);
        EXPECT_EQ(db.allocator().allocate_empty_block(0, true), kFirst);
        EXPECT_EQ(db.allocator().allocate_empty_block(kFirst + 3, true), kFirst + 3);
        outer.commit();
    }
    EXPECT_EQ(db.allocator().allocate_empty_block(0, false), kFirst);
}

TEST(Allocator, AbortRestoresMarksFlagsAndCursor) {
    TestDatabase test;
    mdb::Database& db = test.open();
    mark(db, kFirst, mark_t::leaf);
    db.journal().transaction_begin();
    db.allocator().set_mark(kFirst, mark_t::used);
    db.journal().transaction_begin();
    db.allocator().set_mark(kFirst, mark_t::empty);
    EXPECT_EQ(allocate(db, 0, 50).block, kFirst);
    EXPECT_EQ(db.allocator().alloc_cursor(), kFirst);
    db.journal().transaction_abort();
    EXPECT_EQ(db.allocator().query_mark(kFirst), mark_t::used);
    EXPECT_EQ(db.allocator().alloc_cursor(), 0U);
    EXPECT_NO_THROW((void)db.allocator().allocate_empty_block(0, false))
        << "nothing counts as emptied";
    db.journal().transaction_abort();
    EXPECT_EQ(db.allocator().query_mark(kFirst), mark_t::leaf);
    EXPECT_EQ(test.open().allocator().query_mark(kFirst), mark_t::leaf);
}

TEST(Allocator, DamageIsNamed) {
    TestDatabase test;
    const mdb_test::Bytes good = test.read("db");
    for (const uint8_t bad : {uint8_t{3}, uint8_t{8}, uint8_t{255}}) {
        mdb_test::Bytes file = good;
        file[3 * kBlock + 77] = bad;
        test.write("db", file);
        try {
            test.open();
            FAIL();
        } catch (const mdb::error_consistency& failure) {
            EXPECT_EQ(failure.text(), fmt::format("Unknown alloc. bitmap ({}) for block 77", bad));
        }
    }
    mdb_test::Bytes file = good;
    file[3 * kBlock + 77] = 1;
    test.write("db", file);
    EXPECT_THROW(test.open(), mdb::error_consistency) << "a used block that the file doesn't hold";
    test.write("db", good);
    mdb::Database& db = test.open();
    for (const uint32_t word : {0U, 1U, 2000U}) {
        fill_block(db, kFirst, {{0, word & ~1U, (word & 1) != 0}}, mark_t::used);
        EXPECT_THROW((void)allocate(db, 0, 8), mdb::error_consistency) << word;
    }
}

}  // namespace
