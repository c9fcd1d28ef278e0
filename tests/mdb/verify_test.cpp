// The verifier against damage: one thing at a time is spoilt in the files of a small, good
// database, and the one check that is there for it must name the place, and no other check may say
// anything unless the damage tears more than one rule.
#include "mdb/verify.h"

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include "good_database.h"
#include "mdb/errors.h"
#include "mdb/index_layout.h"
#include "mdb/journal_layout.h"
#include "mdb/large_object_layout.h"
#include "mdb/object_layout.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "mdb/verify_files.h"
#include "mdb/verify_parents.h"
#include "platform/overlay_files.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace {

using mdb::block_handle_t;
using mdb::mark_t;
using mdb::VerifyOptions;
using mdb_test::Bytes;
using mdb_test::GoodDatabase;
using mdb_test::kBlockSize;
using mdb_test::kLobProperty;
using mdb_test::kObjects;
using mdb_test::set_word;
using mdb_test::TestDatabase;
using mdb_test::word;

using Expected = std::vector<std::string>;

std::string place(const char* rule, uint32_t block, uint32_t offset) {
    return fmt::format("{} {} {}", rule, block, offset);
}

/// A byte or word of a file that is another one after the damage.
struct Change {
    uint64_t at;
    uint32_t value;
    bool one_byte = false;
};

struct Row {
    const char* what;
    std::vector<Change> changes;
    Expected faults;
    /// The file is cut to so many bytes.
    std::optional<uint64_t> size = {};
};

class Verifier : public testing::Test {
  protected:
    /// Spoils a file of the good database, the database or its journal.
    void run(const std::vector<Row>& rows, Bytes GoodDatabase::*file = &GoodDatabase::db) const {
        ASSERT_EQ(good.faults(good.options()), Expected{});
        for (const Row& row : rows) {
            Bytes bytes = good.*file;
            for (const Change& change : row.changes)
                if (change.one_byte)
                    bytes[change.at] = static_cast<uint8_t>(change.value);
                else
                    set_word(bytes, change.at, change.value);
            if (row.size) bytes.resize(*row.size);
            good.restore();
            good.file.write(file == &GoodDatabase::db ? "db" : "journal", bytes);
            EXPECT_EQ(good.faults(good.options()), row.faults) << row.what;
        }
    }

    [[nodiscard]] uint32_t get(uint32_t block, uint32_t offset) const {
        return word(good.db, good.at(block, offset));
    }
    [[nodiscard]] static Change put(uint32_t block, uint32_t offset, uint32_t value) {
        return {GoodDatabase::at(block, offset), value};
    }
    [[nodiscard]] Change mark(uint32_t block, uint32_t value) const {
        return {good.mark(block), value, true};
    }
    /// The words of a leaf's entry as those of another one.
    [[nodiscard]] std::vector<Change> entry_from(uint32_t leaf, uint32_t to, uint32_t from) const {
        std::vector<Change> changes;
        for (uint32_t k = 0; k < 16; k += 4)
            changes.push_back(put(leaf, 16 + 16 * to + k, get(leaf, 16 + 16 * from + k)));
        return changes;
    }

    GoodDatabase good;
    const block_handle_t object = good.object;
    const uint32_t empty = good.empty;
    const uint32_t lob = good.lob;
};

std::vector<Change> operator+(std::vector<Change> all, const std::vector<Change>& more) {
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

TEST_F(Verifier, NamesEachDamageOfTheTreesOfIndexes) {
    const uint32_t root = good.roots[0];
    const uint32_t bare = good.roots[5];
    const uint32_t first = good.child(0, 0);
    const uint32_t second = good.child(0, 1);
    const uint32_t last = good.last_leaf(0);
    const uint32_t other = good.child(3, 0);
    run({
        {"a leaf with the mark of a node", {mark(second, 5)}, {place("N1", second, 0)}},
        {"a leaf without its magic",
         {put(other, 0, 0)},
         {place("N1", other, 0), place("N6", good.child(3, 1), 4),
          place("O6", object.block, object.offset)}},
        {"a leaf that two indexes claim", {put(bare, 8, second)}, {place("N1", second, 0)}},
        {"a child beyond the file", {put(bare, 8, 900)}, {place("N1", bare, 8)}},
        {"a child in the map", {put(bare, 8, good.map_start)}, {place("N1", good.map_start, 0)}},
        {"a node with more keys than fit", {put(bare, 4, 85)}, {place("N2", bare, 4)}},
        {"a node without its first child", {put(bare, 4, 1)}, {place("N2", bare, 8)}},
        {"a leaf with more entries than fit",
         {put(other, 12, 64)},
         {place("N2", other, 12), place("O6", object.block, object.offset)}},
        {"separators in the wrong order",
         {put(root, 16, 0xFFFFFF00)},
         {place("N3", root, 24), place("N4", second, 16)}},
        {"a separator that is the last key to its left",
         {put(root, 16, get(root, 16) - 1)},
         {place("N4", first, 16 * good.entries(first))}},
        {"two entries in the wrong order",
         entry_from(second, 2, 3) + entry_from(second, 3, 2),
         {place("N3", second, 16 + 16 * 3)}},
        {"a separator above the keys to its right",
         {put(root, 16, get(root, 16) + 1)},
         {place("N4", second, 16)}},
        {"a leaf one level too deep",
         {mark(empty, 5), put(empty, 0, mdb::node_layout::kMagic), put(empty, 8, second),
          put(root, 20, empty)},
         {place("N5", second, 0)}},
        {"a link to the right that is gone", {put(first, 8, 0)}, {place("N6", first, 8)}},
        {"a link to the left that is wrong", {put(second, 4, last)}, {place("N6", second, 4)}},
        {"a link of the last leaf", {put(last, 8, first)}, {place("N6", last, 8)}},
    });
}

TEST_F(Verifier, NamesEachDamageOfTheEntriesOfIndexes) {
    const uint32_t root = good.roots[0];
    const uint32_t last = good.last_leaf(0);
    const uint32_t nkeys = get(root, 4);
    const uint32_t count = good.entries(last);
    const uint32_t last_of_1 = good.last_leaf(1);
    const uint32_t count_of_1 = good.entries(last_of_1);
    const uint32_t leaf_of_3 = good.child(3, 0);
    const uint32_t entry_of_3 = 16 + 16 * 4 + 8;
    const uint32_t last_of_3 = good.last_leaf(3);
    run({
        {"an empty leaf among others, at the right end",
         {mark(empty, 6), put(empty, 0, mdb::leaf_layout::kMagic),
          put(empty, mdb::leaf_layout::left, last), put(last, mdb::leaf_layout::right, empty),
          put(root, 4, nkeys + 1), put(root, 12 + 12 * nkeys, 9),
          put(root, 20 + 12 * nkeys, empty)},
         {place("N7", empty, 12)}},
        {"an entry that stands twice",
         entry_from(last_of_1, count_of_1, count_of_1 - 1) +
             std::vector{put(last_of_1, 12, count_of_1 + 1)},
         {place("N8", last_of_1, 16 + 16 * count_of_1)}},
        {"an object that index 0 does not have",
         {put(last, 12, count - 1)},
         {place("O5", get(last, 16 + 16 * (count - 1) + 8),
                get(last, 16 + 16 * (count - 1) + 12))}},
        // The entry without object comes second, as its key is the same and its block higher.
        {"an entry of index 3 that leads elsewhere",
         {put(leaf_of_3, entry_of_3, get(leaf_of_3, entry_of_3) + 700)},
         {place("O6", get(leaf_of_3, entry_of_3), get(leaf_of_3, entry_of_3 + 4))}},
        {"an index without its entries, which is being built",
         {put(last_of_3, 12, good.entries(last_of_3) - 1),
          put(good.roots[3], kBlockSize - 4, mdb::node_layout::kBeingBuilt)},
         {}},
        {"a block of no index", {mark(empty, 6)}, {place("M3", empty, 0)}},
    });
}

TEST_F(Verifier, NamesEachDamageOfTheObjects) {
    const uint32_t block = object.block;
    const uint32_t text = good.record(51);
    const std::string of_index_0 = place("O6", good.child(0, 0), 16 + 16 * 6);
    run({
        {"an object block that begins with no slot", {mark(empty, 1)}, {place("O1", empty, 0)}},
        {"a slot that leaves its block",
         {mark(empty, 1), put(empty, 0, 1000 | 1), put(empty, 1000, 26 | 1)},
         {place("O1", empty, 1000)}},
        {"a null with a payload", {put(block, text + 8, 3 | 1U << 30)}, {place("O2", block, text)}},
        {"a record that leaves its object",
         {put(block, text + 4, 32)},
         {place("O2", block, object.offset), of_index_0}},
        {"two records of one property",
         {put(block, good.record(52), 51)},
         {place("O3", block, object.offset)}},
        {"a roomy block that is marked full",
         {mark(empty, 2), put(empty, 0, kBlockSize | 1)},
         {place("O4", empty, 0)}},
        {"an allocated slot that no object was put into",
         {mark(empty, 1), put(empty, 0, (kBlockSize - 4) | 1), put(empty, kBlockSize - 4, 4)},
         {place("O7", empty, kBlockSize - 4)}},
        {"a text without an end",
         {put(block, text + 16, 0x78787878), put(block, text + 20, 0x78787878)},
         {place("O8", block, text)}},
        {"a key of another type",
         {put(block, good.record(59) + 8, 11)},
         {place("O2", block, object.offset), of_index_0}},
    });
}

TEST_F(Verifier, NamesEachDamageOfLargeObjects) {
    const uint32_t record = good.record(52);
    run({
        {"a length that wants more blocks", {put(lob, 8, 3000)}, {place("B1", lob + 1, 4)}},
        {"a length that wants fewer blocks",
         {put(lob, 8, 1008)},
         {place("B1", lob, 12), place("B5", lob + 1, 0)}},
        {"another version", {put(lob, 4, 2)}, {place("B1", lob, 4)}},
        {"a further block without its magic", {put(lob + 1, 0, 0)}, {place("B1", lob + 1, 0)}},
        {"a chain that leads out of the file",
         {put(lob, 12, 0xFFFFFFFF)},
         {place("B2", lob, 12), place("B5", lob + 1, 0)}},
        {"a chain into an empty block", {mark(lob + 1, 0)}, {place("B2", lob, 12)}},
        {"a chain that bites its tail",
         {put(lob, 8, 5000), put(lob + 1, 4, lob + 1)},
         {place("B3", lob + 1, 4)}},
        {"a block of no chain", {mark(empty, 7)}, {place("B5", empty, 0)}},
        {"a large object that no object names",
         {mark(empty, 7), put(empty, 0, mdb::lob_layout::kFirstMagic), put(empty, 4, 1)},
         {place("B6", empty, 0)}},
        // Whichever of the two comes second by its place.
        {"an object that names a large object of another",
         {put(object.block, record, kLobProperty), put(object.block, record + 12, lob)},
         {place("B6", good.owner.block, good.owner.offset)}},
        {"an object that names no large object",
         {put(object.block, record, kLobProperty), put(object.block, record + 12, lob + 1)},
         {place("B6", object.block, object.offset)}},
    });
}

TEST_F(Verifier, NamesDamageThatKeepsADatabaseShut) {
    const uint32_t map = good.map_start;
    constexpr uint32_t kRoots = 512 + 24;
    run({
        {"another magic", {{2, '!', true}}, {place("H1", 0, 0)}},
        {"another version", {{7, 9, true}}, {place("H1", 0, 4)}},
        {"a block size that is none", {{8, 0}}, {place("H1", 0, 8)}},
        {"another type of journal", {{12, 3}}, {place("H1", 0, 12)}},
        {"a layout area outside the header", {{16, 1020}}, {place("H1", 0, 16)}},
        {"a root of which the map knows nothing",
         {{kRoots + 4 * 5, 0x00100000}},
         {place("H3", 0, kRoots + 4 * 5), place("M3", good.roots[5], 0)}},
        {"roots that are none, and no journal that knows better",
         {{kRoots, 0}},
         {place("H1", 0, 16)}},
        {"a file that ends in its header", {}, {place("H1", 0, 1000)}, 1000},
        {"an empty file", {}, {place("H1", 0, 0)}, 0},
        {"a file that ends in its map",
         {},
         {place("O4", map, 4), place("M1", map, 100)},
         good.at(map, 100)},
        {"a file that has lost blocks in use",
         {},
         {place("O4", map, empty - 1)},
         good.at(empty - 1)},
        {"a mark that is none", {mark(empty + 500, 3)}, {place("M1", map, empty + 500)}},
    });
}

TEST_F(Verifier, NamesDamageOfAJournalThatKeepsADatabaseShut) {
    const std::string unread = place("H4", 0, 0);
    run(
        {
            {"an empty journal", {}, {place("J", 0, 0)}, 0},
            {"a journal without its magic", {{0, 0, true}}, {place("J", 0, 0), unread}},
            {"a journal of another version", {{4, 2}}, {place("J", 0, 4), unread}},
            {"a journal with no index entry",
             {{16, 0}, {20, 0}, {24, 0}, {28, 0}, {32, 0}, {36, 0}, {40, 0}, {44, 0}},
             {place("J", 0, 16), unread}},
            {"a journal that has lost its end", {}, {place("J", 0, 32 + 8), unread}, 4096},
        },
        &GoodDatabase::journal);
}

TEST_F(Verifier, WhatAProcessHoldsInMemoryIsComparedWithTheFile) {
    good.restore();
    mdb::Database& database = good.file.open();
    const auto text = [&] { return mdb::verify(database).text(); };
    EXPECT_EQ(text(), "");

    // A byte in free space of a cached block.
    const uint8_t byte = 'x';
    const uint64_t free_byte = good.at(good.object.block, 8);
    ASSERT_TRUE((word(good.db, good.at(good.object.block)) & 1) == 1 &&
                word(good.db, good.at(good.object.block)) > 12);
    database.store().byte_write(&byte, free_byte, 1, false);
    EXPECT_THAT(text(),
                testing::HasSubstr(fmt::format("block {} offset 8: C1", good.object.block)));
    database.store().byte_write(&good.db[free_byte], free_byte, 1, false);
    EXPECT_EQ(text(), "");

    // A mark that changed behind the allocator's back.
    const auto full =
        std::find(good.db.begin() + static_cast<std::ptrdiff_t>(good.mark(0)), good.db.end(), 2);
    const auto full_block =
        static_cast<uint32_t>(full - good.db.begin()) - static_cast<uint32_t>(good.mark(0));
    const uint8_t used = 1;
    {
        mdb::Transaction transaction(database.journal());
        database.journal().journal_update(&used, 1, good.mark(full_block));
        transaction.commit();
    }
    EXPECT_EQ(text(), fmt::format("block {} offset {}: M2 block {} has mark 2 in memory but 1 in "
                                  "the file\n",
                                  good.map_start, full_block, full_block));
    {
        mdb::Transaction transaction(database.journal());
        database.allocator().set_mark(full_block, mark_t::full);
        transaction.commit();
    }
    EXPECT_EQ(text(), "");

    mdb::Header header = database.header();
    header.remove_index(5);
    database.journal().transaction_begin();
    database.journal_header(header);
    EXPECT_THROW(static_cast<void>(mdb::verify(database)), mdb::error_internal);
    database.journal().transaction_abort();
    EXPECT_EQ(text(), "");
    database.take_header(header);
    EXPECT_THAT(text(), testing::HasSubstr("block 0 offset 535: H2"));
}

TEST_F(Verifier, ParentsMustExistAndEnd) {
    const auto root_only = [](const NodeId& id) { return id == NodeId{0, 99'999}; };
    const auto faults_with_parent = [&](uint32_t parent) {
        Bytes db = good.db;
        set_word(db, good.at(good.object.block, good.record(2) + 16), parent);
        good.file.write("db", db);
        good.file.write("journal", good.journal);
        const auto check = mdb::make_parent_check(root_only);
        VerifyOptions options = good.options();
        options.checks = {check.get()};
        Expected found = good.faults(options);
        // The index of parents notices too.
        std::erase_if(found, [](const std::string& fault) { return fault.front() != 'P'; });
        return found;
    };
    EXPECT_EQ(faults_with_parent(1), Expected{});
    EXPECT_EQ(faults_with_parent(99'999), Expected{});
    EXPECT_EQ(faults_with_parent(5000),
              (Expected{place("P1", good.object.block, good.object.offset)}));
    // 0.13 lies below 0.3, 0.17 below 0.7.
    EXPECT_EQ(faults_with_parent(7),
              (Expected{place("P2", good.object.block, good.object.offset)}));
    EXPECT_EQ(faults_with_parent(17),
              (Expected{place("P2", good.object.block, good.object.offset)}));
}

TEST_F(Verifier, ManyFaultsAreBoundedAndCounted) {
    Bytes db = good.db;
    set_word(db, good.at(good.roots[0], 4), 0);
    set_word(db, good.at(good.roots[0], 8), 0);
    good.file.write("db", db);
    good.file.write("journal", good.journal);
    platform::OverlayFiles files;
    VerifyOptions options;
    options.most_faults = 10;
    std::vector<std::string> steps;
    options.progress = [&](const mdb::VerifyProgress& progress) {
        steps.emplace_back(progress.step);
        EXPECT_LE(progress.done, progress.total);
    };
    const auto found =
        mdb::verify_files(files, good.file.dir.file("db"), good.file.dir.file("journal"), options);
    EXPECT_EQ(found.verification.faults.size(), 10U);
    EXPECT_GE(found.verification.fault_count, 10U);
    EXPECT_FALSE(found.verification.whole());
    EXPECT_THAT(steps, testing::Contains("map"));
}

}  // namespace
