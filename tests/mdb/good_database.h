// A small, good database for tests of the verifier, of whose files copies can be spoilt.
#pragma once

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "log/log.h"
#include "mdb/errors.h"
#include "mdb/index_layout.h"
#include "mdb/large_object_layout.h"
#include "mdb/object_layout.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "mdb/verify_files.h"
#include "platform/overlay_files.h"
#include "test_database.h"
#include "util/byte_order.h"

namespace mdb_test {

using mdb::block_handle_t;
using mdb::mark_t;
using mdb::VerifyOptions;

inline constexpr uint32_t kBlockSize = TestDatabase::kBlockSize;
/// Enough for four leaves of index 0.
inline constexpr uint32_t kObjects = 200;
inline constexpr uint32_t kLobProperty = 60;

inline uint32_t word(const Bytes& bytes, uint64_t at) {
    return util::load_be32(reinterpret_cast<const std::byte*>(bytes.data()) + at);
}
inline void set_word(Bytes& bytes, uint64_t at, uint32_t value) {
    util::store_be32(reinterpret_cast<std::byte*>(bytes.data()) + at, value);
}

/// A database with 200 objects in six indexes and a large object of two blocks, nothing of it in
/// the journal, and the places of what is in it.
class GoodDatabase {
  public:
    GoodDatabase() {
        logging::set_all_levels(logging::level_t::off);
        file.clock.advance_us(5'000'000);
        fill(file.open());
        file.close();
        db = file.read("db");
        journal = file.read("journal");
    }

    void fill(mdb::Database& database) {
        mdb::IndexTable indexes(database);
        indexes.init_required_indexes();
        mdb::ObjectStore store(database, indexes);
        lob = write_large_object(database);
        create(database, store, 1);
        mdb::start_indexes(indexes, indexes.unique_search(mdb::node_id_index, {0, 1}), 12);
        for (uint32_t i = 2; i <= kObjects; ++i) create(database, store, i);
        database.journal().checkpoint_and_flip();
        for (uint32_t n = 0; n < mdb::kMaxIndexes; ++n)
            roots.push_back(database.header().index_root(n));
        object = indexes.unique_search(mdb::node_id_index, {0, 7});
        owner = indexes.unique_search(mdb::node_id_index, {0, 5});
        map_start = database.allocator().map_start();
        empty = database.allocator().allocate_empty_block(0, true);
    }

    /// Object 1 is the root and has no parent, 2 to 7 lie below it, the others below these.
    void create(mdb::Database& database, mdb::ObjectStore& store, uint32_t i) const {
        mdb::Serializer& serializer = database.serializer();
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyNodeId(0, {0, i}));
        if (i > 1) serializer.serial_add(mdb::PropertyNodeId(2, {0, i < 8 ? 1 : 2 + i % 6}));
        serializer.serial_add(mdb::PropertyBool(502, i % 2 == 0));
        serializer.serial_add(mdb::PropertyNodeId(59, {0, 3}));
        if (i == 5) serializer.serial_add(mdb::PropertyUint32(kLobProperty, lob));
        serializer.serial_add(mdb::PropertyUint32(52, i));
        serializer.serial_add(mdb::PropertyString(51, std::string(7, 'x')));
        static_cast<void>(store.store_object({}));
    }

    static uint32_t write_large_object(mdb::Database& database) {
        mdb::Transaction transaction(database.journal());
        std::vector<uint32_t> blocks;
        for (int i = 0; i < 2; ++i) {
            blocks.push_back(database.allocator().allocate_empty_block(0, true));
            database.allocator().set_mark(blocks.back(), mark_t::lob);
        }
        transaction.commit();
        Bytes block(kBlockSize, 'L');
        set_word(block, 0, mdb::lob_layout::kFirstMagic);
        set_word(block, mdb::lob_layout::version, 1);
        set_word(block, mdb::lob_layout::length, 2000);
        set_word(block, mdb::lob_layout::first_next, blocks[1]);
        database.store().block_write(block.data(), blocks[0], 1);
        set_word(block, 0, mdb::lob_layout::kFurtherMagic);
        set_word(block, mdb::lob_layout::further_next, 0);
        database.store().block_write(block.data(), blocks[1], 1);
        return blocks[0];
    }

    [[nodiscard]] static uint64_t at(uint32_t block, uint32_t offset = 0) {
        return uint64_t{block} * kBlockSize + offset;
    }
    /// Child `p` of the root of an index.
    [[nodiscard]] uint32_t child(uint32_t n, uint32_t p) const {
        return word(db, at(roots[n], p == 0 ? 8 : 20 + 12 * (p - 1)));
    }
    [[nodiscard]] uint32_t last_leaf(uint32_t n) const {
        return child(n, word(db, at(roots[n], 4)));
    }
    [[nodiscard]] uint32_t entries(uint32_t leaf) const { return word(db, at(leaf, 12)); }
    /// Where in its block the record of a property of `object` begins.
    [[nodiscard]] uint32_t record(uint32_t property) const {
        uint32_t offset = object.offset + 4;
        while (word(db, at(object.block, offset)) != property)
            offset += word(db, at(object.block, offset + 4));
        return offset;
    }
    [[nodiscard]] uint64_t mark(uint32_t block) const { return at(map_start, block); }

    void restore() const {
        file.write("db", db);
        file.write("journal", journal);
    }
    /// Faults as "RULE BLOCK OFFSET", those of several rules in the order in which they were found,
    /// each rule once.
    [[nodiscard]] std::vector<std::string> faults(const VerifyOptions& options) const {
        platform::OverlayFiles files;
        const auto found =
            mdb::verify_files(files, file.dir.file("db"), file.dir.file("journal"), options);
        std::vector<std::string> lines;
        std::string last;
        for (const mdb::Fault& fault : found.verification.faults) {
            if (fault.rule != last)
                lines.push_back(fmt::format("{} {} {}", fault.rule, fault.block, fault.offset));
            last = fault.rule;
        }
        return lines;
    }
    [[nodiscard]] VerifyOptions options() const {
        VerifyOptions made;
        made.large_object_properties = {kLobProperty};
        return made;
    }

    TestDatabase file;
    Bytes db;
    Bytes journal;
    std::vector<uint32_t> roots;
    /// Object 0.7, and 0.5, which names the large object.
    block_handle_t object;
    block_handle_t owner;
    uint32_t map_start = 0;
    uint32_t lob = 0;
    /// A block that holds nothing.
    uint32_t empty = 0;
};

}  // namespace mdb_test
