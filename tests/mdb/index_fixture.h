// A database with its indexes, for tests that change trees entry by entry and look at their blocks.
#pragma once

#include <array>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "mdb/index.h"
#include "mdb/index_layout.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "mdb/verify.h"
#include "test_database.h"

namespace mdb_test {

using mdb::block_handle_t;
using mdb::mark_t;
using mdb::Transaction;

inline constexpr uint32_t kUnique = mdb::node_id_index;
inline constexpr uint32_t kRuns = mdb::parent_id_index;
inline constexpr uint32_t kLeafCapacity = mdb::leaf_capacity(1024);

inline NodeId id(uint32_t n) {
    return {1, n};
}
inline block_handle_t at(uint32_t n) {
    return {n, 64};
}

class IndexTest : public testing::Test {
  protected:
    IndexTest() : file(4 << 20, 16 << 20) { open(); }

    void close() {
        store.reset();
        indexes.reset();
        file.close();
    }
    void open() {
        close();
        database = &file.open(64);
        indexes.emplace(*database);
        indexes->init_required_indexes();
        store.emplace(*database, *indexes);
    }
    template <class Work>
    void change(Work&& work) {
        Transaction transaction(database->journal());
        work();
        transaction.commit();
    }
    void insert(NodeId key, uint32_t value) {
        change([&] { indexes->non_unique_insert(kRuns, key, at(value)); });
    }
    void erase(NodeId key, uint32_t value) {
        change([&] { indexes->non_unique_delete(kRuns, key, at(value)); });
    }
    void insert_unique(uint32_t n) {
        change([&] { indexes->unique_update(kUnique, id(n), at(n), false); });
    }
    void erase_unique(uint32_t n) {
        change([&] { indexes->unique_delete(kUnique, id(n)); });
    }
    /// Second words of all keys, in the order of the index.
    std::vector<uint32_t> keys(uint32_t n) {
        std::vector<uint32_t> result;
        for (auto it = indexes->iterate_first(n); it.valid(); indexes->iterator_next(it))
            result.push_back(indexes->iterator_key(it).second);
        return result;
    }
    std::vector<uint32_t> values_of(NodeId key) {
        std::vector<uint32_t> result;
        for (auto it = indexes->non_unique_search(kRuns, key); it.at_searched_key();
             indexes->iterator_next(it))
            result.push_back(indexes->iterator_value(it).block);
        return result;
    }
    void expect_whole() {
        for (uint32_t n = 0; n < indexes->index_count(); ++n)
            EXPECT_EQ(mdb::verify_index(*database, n).text(), "") << "index " << n;
    }
    std::string verify_all() {
        mdb::VerifyOptions options;
        options.lost_index_blocks = true;
        return mdb::verify(*database, options).text();
    }
    uint32_t root(uint32_t n) { return database->header().index_root(n); }
    uint32_t word(uint32_t block, uint32_t offset) {
        return util::load_be32(database->cache().cached_block(block) + offset);
    }
    /// Child `p` of the root.
    uint32_t child(uint32_t n, uint32_t p) {
        return word(root(n), p == 0 ? mdb::node_layout::ptr0 : 20 + 12 * (p - 1));
    }
    /// Overwrites a word of a block, as damage would.
    void damage(uint32_t block, uint32_t offset, uint32_t value) {
        std::array<std::byte, 4> bytes;
        util::store_be32(bytes.data(), value);
        change([&] {
            database->journal().journal_update(bytes.data(), 4,
                                               database->store().block_offset(block) + offset);
        });
    }
    block_handle_t create(NodeId own, NodeId parent) {
        auto& serializer = database->serializer();
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyNodeId(0, own));
        serializer.serial_add(mdb::PropertyNodeId(2, parent));
        serializer.serial_add(mdb::PropertyBool(502, own.second % 2 == 0));
        serializer.serial_add(mdb::PropertyNodeId(59, {0, 7}));
        return store->store_object({});
    }

    TestDatabase file;
    mdb::Database* database = nullptr;
    std::optional<mdb::IndexTable> indexes;
    std::optional<mdb::ObjectStore> store;
};

}  // namespace mdb_test
