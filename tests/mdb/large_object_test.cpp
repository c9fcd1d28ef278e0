#include "mdb/large_object.h"

#include <functional>
#include <gtest/gtest.h>

#include "mdb/large_object_layout.h"
#include "test_database.h"
#include "util/byte_order.h"

namespace {

using mdb::mark_t;
using mdb_test::Bytes;
using mdb_test::hex;
using mdb_test::put;
using mdb_test::TestDatabase;
using Data = std::vector<std::byte>;
namespace layout = mdb::lob_layout;

constexpr uint32_t kBlock = TestDatabase::kBlockSize;
/// Header, two roots, one map block.
constexpr uint32_t kFirst = 4;

Data pattern(size_t size, uint32_t seed = 1) {
    Data data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<std::byte>(i * 7 + i / 251 + seed * 31 + 1);
    return data;
}

/// In a transaction of its own.
uint32_t write(mdb::Database& db, const Data& data, bool asynchronous = true) {
    mdb::Transaction transaction(db.journal());
    const uint32_t block = mdb::write_lob(db, data);
    transaction.commit(asynchronous);
    return block;
}
void release(mdb::Database& db, uint32_t block, bool asynchronous = true) {
    mdb::Transaction transaction(db.journal());
    mdb::free_lob(db, block);
    transaction.commit(asynchronous);
}
Data read(mdb::Database& db, uint32_t block) {
    Data data;
    mdb::read_lob(db, block, data);
    return data;
}
std::vector<uint32_t> blocks_with(mdb::Database& db, mark_t mark) {
    std::vector<uint32_t> blocks;
    for (uint32_t block = kFirst; block < kBlock; ++block)
        if (db.allocator().query_mark(block) == mark) blocks.push_back(block);
    return blocks;
}
void set_mark(mdb::Database& db, uint32_t block, mark_t mark, bool asynchronous = true) {
    db.store().ensure_block(block);
    mdb::Transaction transaction(db.journal());
    db.allocator().set_mark(block, mark);
    transaction.commit(asynchronous);
}
void set_word(mdb::Database& db, uint32_t block, uint32_t offset, uint32_t value) {
    std::byte bytes[4];
    util::store_be32(bytes, value);
    db.store().byte_write(bytes, db.store().block_offset(block) + offset, sizeof bytes, false);
}

/// "class: text" of what `action` throws; "none".
std::string failure_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const mdb::error_range& failure) {
        return "range: " + failure.text();
    } catch (const mdb::error_internal& failure) {
        return "internal: " + failure.text();
    } catch (const mdb::error_dbnospace& failure) {
        return "dbnospace: " + failure.text();
    }
    return "none";
}
std::string read_failure(mdb::Database& db, uint32_t block) {
    return failure_of([&] { (void)read(db, block); });
}
/// The transaction is aborted.
std::string free_failure(mdb::Database& db, uint32_t block) {
    return failure_of([&] { release(db, block); });
}

TEST(LargeObject, BytesAsDrawn) {
    TestDatabase test;
    mdb::Database& db = test.open();
    const Data abc{std::byte{'a'}, std::byte{'b'}, std::byte{'c'}};
    ASSERT_EQ(write(db, abc), kFirst);
    EXPECT_EQ(test.part("db", kFirst * kBlock, 20),
              hex("4C4F4268 00000001 00000003 00000000 61626300"));
    Data two(1009, std::byte{0xAA});
    two.back() = std::byte{0xBB};
    ASSERT_EQ(write(db, two), 5U);
    EXPECT_EQ(test.part("db", 5 * kBlock, 20), hex("4C4F4268 00000001 000003F1 00000006 AAAAAAAA"));
    // What the buffer held from the first block stays behind the data of the last one.
    EXPECT_EQ(test.part("db", 6 * kBlock, 16), hex("4C4F4264 00000000 BB0003F1 00000006"));
    EXPECT_EQ(blocks_with(db, mark_t::lob), (std::vector<uint32_t>{4, 5, 6}));
}

TEST(LargeObject, SizesAroundTheEndsOfBlocks) {
    for (const size_t size : {0U, 1U, 1007U, 1008U, 1009U, 2024U, 2025U, 3040U, 3041U, 100'000U}) {
        SCOPED_TRACE(size);
        TestDatabase test(64 * 1024, 2 << 20);
        mdb::Database* db = &test.open();
        const Data data = pattern(size);
        const uint32_t other = write(*db, pattern(1500, 9));
        const uint32_t block = write(*db, data);
        EXPECT_EQ(read(*db, block), data);
        EXPECT_EQ(blocks_with(*db, mark_t::lob).size(), 2 + layout::block_count(size, kBlock));
        db = &test.open();
        EXPECT_EQ(read(*db, block), data);
        release(*db, block);
        EXPECT_EQ(blocks_with(*db, mark_t::lob).size(), 2U);
        EXPECT_EQ(write(*db, data), block) << "freed and committed, the blocks are used again";
        EXPECT_EQ(read(*db, other), pattern(1500, 9));
    }
}

TEST(LargeObject, NeedsATransaction) {
    TestDatabase test;
    mdb::Database& db = test.open();
    const uint32_t block = write(db, pattern(10));
    const Data data = pattern(20);
    EXPECT_EQ(failure_of([&] { (void)mdb::write_lob(db, data); }),
              "internal: Update outside of transaction attempted");
    EXPECT_EQ(failure_of([&] { mdb::free_lob(db, block); }),
              "internal: Update outside of transaction attempted");
    EXPECT_EQ(blocks_with(db, mark_t::lob), std::vector<uint32_t>{block});
    EXPECT_EQ(read(db, block), pattern(10));
}

TEST(LargeObject, DamageEndsInItsMessage) {
    struct Row {
        const char* what;
        uint32_t block;
        uint32_t offset;
        uint32_t value;
        std::string reading;
        std::string freeing;
    };
    // The chain of 4, 5 and 6, and block 7 on its own.
    const Row rows[] = {
        {"first magic", 4, 0, 0x4C4F4264, "internal: read_lob: Bad magic cookie in header",
         "internal: free_lob: Bad magic cookie in header"},
        {"further magic", 6, 0, 0x4C4F4268, "internal: read_lob: Bad magic cookie in data block",
         "internal: free_lob: Bad magic cookie in data block"},
        {"cut after the first", 4, 12, 0, "internal: read_lob: bad length for single block lob",
         "internal: free_lob: bad length for single block lob"},
        {"cut after the second", 5, 4, 0, "internal: read_lob: read count is wrong", "none"},
        {"too short a length", 4, 8, 2024, "internal: read_lob: offset exceeds length", "none"},
        {"no length", 4, 8, 0, "internal: read_lob: offset exceeds length", "none"},
        {"too great a length", 4, 8, 0xFFFFFFFF, "internal: read_lob: read count is wrong", "none"},
        {"first points to itself", 4, 12, 4, "internal: getNext points to self!",
         "internal: getNext points to self!"},
        {"second points to itself", 5, 4, 5, "internal: getNext points to self!",
         "internal: getNext points to self!"},
        {"back to the first", 6, 4, 4, "internal: read_lob: offset exceeds length",
         "internal: free_lob: Bad magic cookie in data block"},
        {"ring", 6, 4, 5, "internal: read_lob: offset exceeds length",
         "internal: free_lob: block 5 has mark 0 and not that of a large object"},
        {"out of the file", 5, 4, 0xFFFFFFFF,
         "range: Read beyond end of object backing store attempted",
         "range: Read beyond end of object backing store attempted"},
        {"to the header", 5, 4, 1, "internal: read_lob: Bad magic cookie in data block",
         "internal: free_lob: Bad magic cookie in data block"},
    };
    TestDatabase test;
    mdb::Database& db = test.open();
    const Data data = pattern(3000);
    ASSERT_EQ(write(db, data), 4U);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Bytes whole = test.part("db", row.block * kBlock + row.offset, 4);
        set_word(db, row.block, row.offset, row.value);
        EXPECT_EQ(read_failure(db, 4), row.reading);
        {
            mdb::Transaction transaction(db.journal());
            EXPECT_EQ(failure_of([&] { mdb::free_lob(db, 4); }), row.freeing);
        }
        EXPECT_EQ(blocks_with(db, mark_t::lob), (std::vector<uint32_t>{4, 5, 6}));
        set_word(db, row.block, row.offset,
                 util::load_be32(reinterpret_cast<const std::byte*>(whole.data())));
        EXPECT_EQ(read(db, 4), data);
    }
    EXPECT_EQ(read_failure(db, 4000), "range: Read beyond end of object backing store attempted");
    EXPECT_EQ(free_failure(db, 0xFFFFFFFF),
              "range: Read beyond end of object backing store attempted");
}

TEST(LargeObject, ASingleBlockMayClaimFewBytesTooMany) {
    TestDatabase test;
    mdb::Database& db = test.open();
    const uint32_t block = write(db, pattern(1008));
    for (const uint32_t length : {1009U, 1024U}) {
        set_word(db, block, layout::length, length);
        EXPECT_EQ(read_failure(db, block), "internal: read_lob: read count is wrong");
    }
    set_word(db, block, layout::length, 1025);
    EXPECT_EQ(read_failure(db, block), "internal: read_lob: bad length for single block lob");
}

TEST(LargeObject, ARingWithAHugeLengthTakesNoMoreMemoryThanTheChain) {
    TestDatabase test;
    mdb::Database& db = test.open();
    const uint32_t block = write(db, pattern(20'000));
    set_word(db, block, layout::length, 0xFFFFFFFF);
    const std::vector<uint32_t> chain = blocks_with(db, mark_t::lob);
    for (const uint32_t back_to : chain) {
        if (back_to == chain.front() || back_to == chain.back()) continue;
        set_word(db, chain.back(), layout::further_next, back_to);
        Data data;
        EXPECT_EQ(failure_of([&] { mdb::read_lob(db, block, data); }),
                  "internal: read_lob: offset exceeds length");
        EXPECT_LE(data.size(), size_t{4} * 20 * kBlock);
    }
}

TEST(LargeObject, ForeignMarksAreNotFreed) {
    TestDatabase test;
    mdb::Database& db = test.open();
    const uint32_t block = write(db, pattern(3000));
    set_mark(db, block + 1, mark_t::leaf);
    EXPECT_EQ(free_failure(db, block),
              "internal: free_lob: block 5 has mark 6 and not that of a large object");
    EXPECT_EQ(db.allocator().query_mark(block), mark_t::lob) << "the abort took it back";
    EXPECT_EQ(read(db, block), pattern(3000)) << "a reader changes nothing and may have it";
    set_mark(db, block + 1, mark_t::lob);
    release(db, block);
    EXPECT_EQ(free_failure(db, block),
              "internal: free_lob: block 4 has mark 0 and not that of a large object");
}

/// A journalled life of `block` that ends with the block empty: what an object block or a node
/// leaves.
void journalled_life(mdb::Database& db, uint32_t block) {
    set_mark(db, block, mark_t::leaf);
    mdb::Transaction transaction(db.journal());
    put(db, db.store().block_offset(block), std::string(kBlock, 'J'));
    db.allocator().set_mark(block, mark_t::empty);
    transaction.commit(false);
}

TEST(LargeObject, NoBlockThatTheJournalStillClaimsIsTaken) {
    TestDatabase test;
    mdb::Database& db = test.open();
    journalled_life(db, kFirst);
    const Data data = pattern(900);
    const uint32_t block = write(db, data);
    EXPECT_EQ(block, kFirst + 1);
    {
        mdb::Transaction transaction(db.journal());
        EXPECT_EQ(db.allocator().allocate_empty_block(0, true), kFirst) << "a node may have it";
    }
    db.journal().flip(false);
    EXPECT_EQ(write(db, data), kFirst) << "no replay reaches the old half any more";
    // A half left by a redirection is done with as well.
    release(db, kFirst, false);
    journalled_life(db, kFirst);
    db.journal().flip(true);
    EXPECT_EQ(write(db, data), kFirst);
}

TEST(LargeObject, TheCacheForgetsWhatABlockWas) {
    TestDatabase test;
    mdb::Database& db = test.open();
    journalled_life(db, kFirst);
    db.journal().flip(false);
    EXPECT_EQ(mdb_test::see(db, kFirst * kBlock, 4), "JJJJ");
    ASSERT_EQ(write(db, pattern(10)), kFirst);
    EXPECT_EQ(mdb_test::see(db, kFirst * kBlock, 4), "LOBh");
    release(db, kFirst);
    // The next journalled life starts from what stands in the file.
    set_mark(db, kFirst, mark_t::leaf);
    EXPECT_EQ(mdb_test::see(db, kFirst * kBlock, 4), "LOBh");
}

}  // namespace
