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

struct Row {
    const char* what;
    /// Changes the database, and the journal where it can; gives the faults to be found.
    std::function<std::vector<std::string>(const GoodDatabase&, Bytes&, Bytes&)> damage;
};

using Expected = std::vector<std::string>;

std::string place(const char* rule, uint32_t block, uint32_t offset) {
    return fmt::format("{} {} {}", rule, block, offset);
}

void run(const std::vector<Row>& rows) {
    const GoodDatabase good;
    ASSERT_EQ(good.faults(good.options()), Expected{});
    for (const Row& row : rows) {
        Bytes db = good.db;
        Bytes journal = good.journal;
        const Expected expected = row.damage(good, db, journal);
        good.file.write("db", db);
        good.file.write("journal", journal);
        EXPECT_EQ(good.faults(good.options()), expected) << row.what;
    }
}

/// Makes `block` a leaf without entries at the right end of index 0.
void append_empty_leaf(const GoodDatabase& good, Bytes& db, uint32_t block) {
    const uint32_t last = good.last_leaf(0);
    const uint32_t root = good.roots[0];
    const uint32_t nkeys = word(db, good.at(root, 4));
    db[good.mark(block)] = 6;
    set_word(db, good.at(block), mdb::leaf_layout::kMagic);
    set_word(db, good.at(block, mdb::leaf_layout::left), last);
    set_word(db, good.at(last, mdb::leaf_layout::right), block);
    set_word(db, good.at(root, 4), nkeys + 1);
    set_word(db, good.at(root, 12 + 12 * nkeys), 9);
    set_word(db, good.at(root, 20 + 12 * nkeys), block);
}

TEST(Verify, NamesEachDamageOfTheTreesOfIndexes) {
    const std::vector<Row> rows = {
        {"a leaf with the mark of a node",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.child(0, 1))] = 5;
             return {place("N1", good.child(0, 1), 0)};
         }},
        {"a leaf without its magic",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.child(3, 0)), 0);
             return {place("N1", good.child(3, 0), 0), place("N6", good.child(3, 1), 4),
                     place("O6", good.object.block, good.object.offset)};
         }},
        {"a leaf that two indexes claim",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.roots[5], 8), good.child(0, 1));
             return {place("N1", good.child(0, 1), 0)};
         }},
        {"a child beyond the file",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.roots[5], 8), 900);
             return {place("N1", good.roots[5], 8)};
         }},
        {"a child in the map",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.roots[5], 8), good.map_start);
             return {place("N1", good.map_start, 0)};
         }},
        {"a node with more keys than fit",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.roots[5], 4), 85);
             return {place("N2", good.roots[5], 4)};
         }},
        {"two entries in the wrong order",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const auto entry =
                 db.begin() + static_cast<std::ptrdiff_t>(good.at(good.child(0, 1), 16 + 16 * 2));
             std::swap_ranges(entry, entry + 16, entry + 16);
             return {place("N3", good.child(0, 1), 16 + 16 * 3)};
         }},
        {"a separator above the keys to its right",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint64_t second_word = good.at(good.roots[0], 16);
             set_word(db, second_word, word(db, second_word) + 1);
             return {place("N4", good.child(0, 1), 16)};
         }},
        {"a leaf one level too deep",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.empty)] = 5;
             set_word(db, good.at(good.empty), mdb::node_layout::kMagic);
             set_word(db, good.at(good.empty, 8), good.child(0, 1));
             set_word(db, good.at(good.roots[0], 20), good.empty);
             return {place("N5", good.child(0, 1), 0)};
         }},
        {"a link to the right that is gone",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.child(0, 0), 8), 0);
             return {place("N6", good.child(0, 0), 8)};
         }},
        {"a link of the last leaf",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.last_leaf(0), 8), good.child(0, 0));
             return {place("N6", good.last_leaf(0), 8)};
         }},
    };
    run(rows);
}

TEST(Verify, NamesEachDamageOfTheEntriesOfIndexes) {
    const std::vector<Row> rows = {
        {"an empty leaf among others",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             append_empty_leaf(good, db, good.empty);
             return {place("N7", good.empty, 12)};
         }},
        {"an entry that stands twice",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t leaf = good.last_leaf(1);
             const uint32_t count = good.entries(leaf);
             const uint32_t end = 16 + 16 * count;
             std::copy_n(db.begin() + static_cast<std::ptrdiff_t>(good.at(leaf, end - 16)), 16,
                         db.begin() + static_cast<std::ptrdiff_t>(good.at(leaf, end)));
             set_word(db, good.at(leaf, 12), count + 1);
             return {place("N8", leaf, end)};
         }},
        {"an object that index 0 does not have",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t leaf = good.last_leaf(0);
             const uint32_t count = good.entries(leaf);
             set_word(db, good.at(leaf, 12), count - 1);
             const uint64_t value = good.at(leaf, 16 + 16 * (count - 1) + 8);
             return {place("O5", word(db, value), word(db, value + 4))};
         }},
        {"an entry of index 3 that leads elsewhere",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t leaf = good.child(3, 0);
             const uint64_t value = good.at(leaf, 16 + 16 * 4 + 8);
             const Expected expected = {place("O6", word(db, value), word(db, value + 4))};
             set_word(db, value, word(db, value) + 700);
             // The entry without object comes second, as its key is the same and its block higher.
             return expected;
         }},
        {"an index without its entries, which is being built",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t leaf = good.last_leaf(3);
             set_word(db, good.at(leaf, 12), good.entries(leaf) - 1);
             set_word(db, good.at(good.roots[3], kBlockSize - 4), mdb::node_layout::kBeingBuilt);
             return {};
         }},
        {"a block of no index",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.empty)] = 6;
             return {place("M3", good.empty, 0)};
         }},
    };
    run(rows);
}

TEST(Verify, NamesEachDamageOfTheObjects) {
    const std::vector<Row> rows = {
        {"an object block that begins with no slot",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.empty)] = 1;
             return {place("O1", good.empty, 0)};
         }},
        {"a slot that leaves its block",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.empty)] = 1;
             set_word(db, good.at(good.empty), 1000 | 1);
             set_word(db, good.at(good.empty, 1000), 26 | 1);
             return {place("O1", good.empty, 1000)};
         }},
        {"a null with a payload",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t offset = good.record(51);
             set_word(db, good.at(good.object.block, offset + 8), 3 | 1U << 30);
             return {place("O2", good.object.block, offset)};
         }},
        {"a record that leaves its object",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t offset = good.record(51);
             set_word(db, good.at(good.object.block, offset + 4), 32);
             return {place("O2", good.object.block, good.object.offset),
                     place("O6", good.child(0, 0), 16 + 16 * 6)};
         }},
        {"two records of one property",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.object.block, good.record(52)), 51);
             return {place("O3", good.object.block, good.object.offset)};
         }},
        {"a roomy block that is marked full",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.empty)] = 2;
             set_word(db, good.at(good.empty), kBlockSize | 1);
             return {place("O4", good.empty, 0)};
         }},
        {"an allocated slot that no object was put into",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.empty)] = 1;
             set_word(db, good.at(good.empty), (kBlockSize - 4) | 1);
             set_word(db, good.at(good.empty, kBlockSize - 4), 4);
             return {place("O7", good.empty, kBlockSize - 4)};
         }},
        {"a text without an end",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t offset = good.record(51);
             set_word(db, good.at(good.object.block, offset + 16), 0x78787878);
             set_word(db, good.at(good.object.block, offset + 20), 0x78787878);
             return {place("O8", good.object.block, offset)};
         }},
        {"a key of another type",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.object.block, good.record(59) + 8), 11);
             return {place("O2", good.object.block, good.object.offset),
                     place("O6", good.child(0, 0), 16 + 16 * 6)};
         }},
    };
    run(rows);
}

TEST(Verify, NamesEachDamageOfLargeObjects) {
    const std::vector<Row> rows = {
        {"a length that wants more blocks",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.lob, 8), 3000);
             return {place("B1", good.lob + 1, 4)};
         }},
        {"a length that wants fewer blocks",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.lob, 8), 1008);
             return {place("B1", good.lob, 12), place("B5", good.lob + 1, 0)};
         }},
        {"another version",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.lob, 4), 2);
             return {place("B1", good.lob, 4)};
         }},
        {"a further block without its magic",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.lob + 1), 0);
             return {place("B1", good.lob + 1, 0)};
         }},
        {"a chain that leads out of the file",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.lob, 12), 0xFFFFFFFF);
             return {place("B2", good.lob, 12), place("B5", good.lob + 1, 0)};
         }},
        {"a chain into an empty block",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.lob + 1)] = 0;
             return {place("B2", good.lob, 12)};
         }},
        {"a chain that bites its tail",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, good.at(good.lob, 8), 5000);
             set_word(db, good.at(good.lob + 1, 4), good.lob + 1);
             return {place("B3", good.lob + 1, 4)};
         }},
        {"a block of no chain",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.empty)] = 7;
             return {place("B5", good.empty, 0)};
         }},
        {"a large object that no object names",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.empty)] = 7;
             set_word(db, good.at(good.empty), mdb::lob_layout::kFirstMagic);
             set_word(db, good.at(good.empty, 4), 1);
             return {place("B6", good.empty, 0)};
         }},
        {"an object that names a large object of another",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t offset = good.record(52);
             set_word(db, good.at(good.object.block, offset), kLobProperty);
             set_word(db, good.at(good.object.block, offset + 12), good.lob);
             // Whichever comes second by its place.
             return {place("B6", good.owner.block, good.owner.offset)};
         }},
        {"an object that names no large object",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t offset = good.record(52);
             set_word(db, good.at(good.object.block, offset), kLobProperty);
             set_word(db, good.at(good.object.block, offset + 12), good.lob + 1);
             return {place("B6", good.object.block, good.object.offset)};
         }},
    };
    run(rows);
}

TEST(Verify, NamesDamageThatKeepsADatabaseShut) {
    const std::vector<Row> rows = {
        {"another magic",
         [](const GoodDatabase&, Bytes& db, Bytes&) -> Expected {
             db[2] = '!';
             return {place("H1", 0, 0)};
         }},
        {"another version",
         [](const GoodDatabase&, Bytes& db, Bytes&) -> Expected {
             db[7] = 9;
             return {place("H1", 0, 4)};
         }},
        {"a block size that is none",
         [](const GoodDatabase&, Bytes& db, Bytes&) -> Expected {
             set_word(db, 8, 0);
             return {place("H1", 0, 8)};
         }},
        {"another type of journal",
         [](const GoodDatabase&, Bytes& db, Bytes&) -> Expected {
             set_word(db, 12, 3);
             return {place("H1", 0, 12)};
         }},
        {"a layout area outside the header",
         [](const GoodDatabase&, Bytes& db, Bytes&) -> Expected {
             set_word(db, 16, 1020);
             return {place("H1", 0, 16)};
         }},
        {"a root of which the map knows nothing",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             set_word(db, 512 + 24 + 4 * 5, 0x00100000);
             return {place("H3", 0, 512 + 24 + 4 * 5), place("M3", good.roots[5], 0)};
         }},
        {"roots that are none, and no journal that knows better",
         [](const GoodDatabase&, Bytes& db, Bytes&) -> Expected {
             set_word(db, 512 + 24, 0);
             return {place("H1", 0, 16)};
         }},
        {"a file that ends in its header",
         [](const GoodDatabase&, Bytes& db, Bytes&) -> Expected {
             db.resize(1000);
             return {place("H1", 0, 1000)};
         }},
        {"an empty file",
         [](const GoodDatabase&, Bytes& db, Bytes&) -> Expected {
             db.clear();
             return {place("H1", 0, 0)};
         }},
        {"a file that ends in its map",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db.resize(good.at(good.map_start, 100));
             return {place("O4", good.map_start, 4), place("M1", good.map_start, 100)};
         }},
        {"a file that has lost blocks in use",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             const uint32_t last = good.empty - 1;
             db.resize(good.at(last));
             return {place("O4", good.map_start, last)};
         }},
        {"a mark that is none",
         [](const GoodDatabase& good, Bytes& db, Bytes&) -> Expected {
             db[good.mark(good.empty + 500)] = 3;
             return {place("M1", good.map_start, good.empty + 500)};
         }},
    };
    run(rows);
}

TEST(Verify, NamesDamageOfAJournalThatKeepsADatabaseShut) {
    const std::vector<Row> rows = {
        {"an empty journal",
         [](const GoodDatabase&, Bytes&, Bytes& journal) -> Expected {
             journal.clear();
             return {place("J", 0, 0)};
         }},
        {"a journal without its magic",
         [](const GoodDatabase&, Bytes&, Bytes& journal) -> Expected {
             journal[0] = 0;
             return {place("J", 0, 0), place("H4", 0, 0)};
         }},
        {"a journal of another version",
         [](const GoodDatabase&, Bytes&, Bytes& journal) -> Expected {
             set_word(journal, 4, 2);
             return {place("J", 0, 4), place("H4", 0, 0)};
         }},
        {"a journal with no index entry",
         [](const GoodDatabase&, Bytes&, Bytes& journal) -> Expected {
             std::fill_n(journal.begin() + 16, 32, uint8_t{0});
             return {place("J", 0, 16), place("H4", 0, 0)};
         }},
        {"a journal that has lost its end",
         [](const GoodDatabase&, Bytes&, Bytes& journal) -> Expected {
             journal.resize(4096);
             return {place("J", 0, 32 + 8), place("H4", 0, 0)};
         }},
    };
    run(rows);
}

TEST(Verify, WhatAProcessHoldsInMemoryIsComparedWithTheFile) {
    GoodDatabase good;
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

TEST(Verify, ParentsMustExistAndEnd) {
    const GoodDatabase good;
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

TEST(Verify, ManyFaultsAreBoundedAndCounted) {
    const GoodDatabase good;
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
