// Index trees under random work, beside the standard containers that they must agree with. Small
// blocks, so that leaves hold 63 entries and nodes 84 keys and trees get three levels and more.

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <optional>
#include <vector>

#include "mdb/index.h"
#include "mdb/verify.h"
#include "support/rng.h"
#include "test_database.h"

namespace {

using mdb::block_handle_t;
using mdb::IndexTable;
using mdb::Transaction;

/// How keys are drawn: how many there are, and how near together.
struct Workload {
    const char* name;
    uint64_t seed;
    uint32_t key_count;
    int steps;
    /// How many of a hundred operations insert, in turn: the tree grows, then shrinks to nothing.
    std::vector<unsigned> insert_percent;
    uint32_t buffer_blocks;
};

NodeId key_number(uint64_t i) {
    // Both words carry, and the order of keys isn't that of their second words.
    return {static_cast<uint32_t>(i % 3 * 0x80000000ULL >> 1), static_cast<uint32_t>(i * 0x10001)};
}

block_handle_t value_number(uint64_t i) {
    return {static_cast<uint32_t>(i / 7 + 1), static_cast<uint32_t>(i % 7 * 64)};
}

/// An index of a new database, its model, and transactions over both.
template <class Model>
class Bench {
  public:
    Bench(uint32_t n, const Workload& work)
        : number_(n),
          work_(work),
          file_(4 << 20, 64 << 20),
          database_(&file_.open(work.buffer_blocks)),
          rng(work.seed) {
        indexes.emplace(*database_);
        indexes->init_required_indexes();
    }

    /// Runs `step` over and over in transactions, some of which are undone; verifies now and then.
    template <class Step>
    void run(Step step) {
        const int batch = 64;
        const int phases = static_cast<int>(work_.insert_percent.size());
        for (int done = 0; done < work_.steps; done += batch) {
            insert_percent = work_.insert_percent[static_cast<size_t>(static_cast<int64_t>(done) *
                                                                      phases / work_.steps)];
            const bool undone = rng.chance(5);
            const Model before = undone ? model : Model{};
            {
                Transaction transaction(database_->journal());
                for (int i = 0; i < batch; ++i) step();
                if (!undone) transaction.commit();
            }
            if (undone) model = before;
            if (done / batch % 97 == 0) verify(done);
            if (rng.below(400) == 0) reopen();
        }
        verify(work_.steps);
    }

    void verify(int step) {
        ASSERT_EQ(mdb::verify_index(database(), number_).text(), "") << "step " << step;
        auto expected = model.begin();
        for (auto it = indexes->iterate_first(number_); it.valid(); indexes->iterator_next(it)) {
            ASSERT_NE(expected, model.end());
            ASSERT_EQ(indexes->iterator_key(it), expected->first) << "step " << step;
            ASSERT_EQ(indexes->iterator_value(it), expected->second) << "step " << step;
            ++expected;
        }
        ASSERT_EQ(expected, model.end()) << "step " << step;
    }

    void reopen() {
        indexes.reset();
        database_ = &file_.open(work_.buffer_blocks);
        indexes.emplace(*database_);
        indexes->init_required_indexes();
    }

    /// Blocks of the file that the allocation map gives to indexes.
    int index_blocks() {
        int count = 0;
        auto& allocator = database_->allocator();
        const uint64_t end = uint64_t{allocator.map_blocks()} * database_->block_size();
        for (uint32_t b = 0; b < end; ++b)
            count += allocator.query_mark(b) >= mdb::mark_t::root_index ? 1 : 0;
        return count;
    }

    mdb::Database& database() { return *database_; }

  private:
    uint32_t number_;
    Workload work_;
    mdb_test::TestDatabase file_;
    mdb::Database* database_;

  public:
    // After the database, which it must not outlive.
    std::optional<IndexTable> indexes;
    Model model;
    support::Rng rng;
    unsigned insert_percent = 50;
};

class UniqueIndex : public testing::TestWithParam<Workload> {};

TEST_P(UniqueIndex, AgreesWithAMap) {
    const Workload& work = GetParam();
    SCOPED_TRACE(testing::Message() << "seed " << work.seed);
    Bench<std::map<NodeId, block_handle_t>> bench(mdb::node_id_index, work);
    auto& index = bench.indexes;
    bench.run([&] {
        const NodeId key = key_number(bench.rng.below(work.key_count));
        const block_handle_t value = value_number(bench.rng.below(1000));
        const auto known = bench.model.find(key);
        if (bench.rng.chance(10)) {
            const auto next = bench.model.upper_bound(key);
            auto it = index->find_after(mdb::node_id_index, key);
            ASSERT_EQ(it.valid(), next != bench.model.end());
            if (it.valid()) {
                ASSERT_EQ(index->iterator_key(it), next->first);
            }
        } else if (bench.rng.chance(10) && known != bench.model.end()) {
            index->unique_update(mdb::node_id_index, key, value, true);
            known->second = value;
        } else if (bench.rng.chance(bench.insert_percent)) {
            if (known == bench.model.end()) {
                index->unique_update(mdb::node_id_index, key, value, false);
                bench.model.emplace(key, value);
            } else {
                ASSERT_EQ(index->unique_find(mdb::node_id_index, key), known->second);
            }
        } else if (known != bench.model.end()) {
            index->unique_delete(mdb::node_id_index, key);
            bench.model.erase(known);
        } else {
            ASSERT_EQ(index->unique_find(mdb::node_id_index, key), std::nullopt);
        }
    });
    for (uint64_t i = 0; i < work.key_count; ++i) {
        const auto known = bench.model.find(key_number(i));
        const auto found = index->unique_find(mdb::node_id_index, key_number(i));
        ASSERT_EQ(found.has_value(), known != bench.model.end());
        if (found) {
            ASSERT_EQ(*found, known->second);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Keys, UniqueIndex,
    testing::Values(Workload{"few", 1, 200, 30'000, {70, 20, 60, 5}, 4},
                    Workload{"many", 2, 40'000, 120'000, {95, 50, 90, 10}, 512},
                    Workload{"dense", 3, 4'000, 60'000, {90, 10, 80, 50, 0}, 64}),
    [](const auto& row) { return row.param.name; });

/// Pairs in the order of an index: runs of equal keys stand in the order of insertion.
struct RunModel {
    std::multimap<NodeId, block_handle_t> entries;
    auto begin() const { return entries.begin(); }
    auto end() const { return entries.end(); }
    std::multimap<NodeId, block_handle_t>::iterator find(const NodeId& key, block_handle_t value) {
        const auto [first, last] = entries.equal_range(key);
        const auto it = std::find_if(first, last, [&](const auto& e) { return e.second == value; });
        return it == last ? entries.end() : it;
    }
};

class NonUniqueIndex : public testing::TestWithParam<Workload> {};

TEST_P(NonUniqueIndex, AgreesWithAMultimap) {
    const Workload& work = GetParam();
    SCOPED_TRACE(testing::Message() << "seed " << work.seed);
    Bench<RunModel> bench(mdb::parent_id_index, work);
    auto& index = bench.indexes;
    constexpr uint32_t n = mdb::parent_id_index;
    bench.run([&] {
        // Half of the work falls on three keys, whose runs cross many leaves.
        const uint64_t i = bench.rng.chance(50) ? 1 + bench.rng.below(3) * (work.key_count / 3)
                                                : bench.rng.below(work.key_count);
        const NodeId key = key_number(i);
        const block_handle_t value = value_number(bench.rng.below(300));
        const auto known = bench.model.find(key, value);
        const bool there = known != bench.model.entries.end();
        if (bench.rng.chance(5)) {
            std::vector<block_handle_t> found;
            for (auto it = index->non_unique_search(n, key); it.at_searched_key();
                 index->iterator_next(it))
                found.push_back(index->iterator_value(it));
            std::vector<block_handle_t> expected;
            const auto [first, last] = bench.model.entries.equal_range(key);
            for (auto e = first; e != last; ++e) expected.push_back(e->second);
            ASSERT_EQ(found, expected);
        } else if (bench.rng.chance(10) && there) {
            const block_handle_t moved = value_number(10'000 + bench.rng.below(1'000'000));
            if (bench.model.find(key, moved) != bench.model.entries.end()) return;
            index->non_unique_update(n, key, value, moved);
            known->second = moved;
        } else if (bench.rng.chance(bench.insert_percent)) {
            if (there) return;
            index->non_unique_insert(n, key, value);
            bench.model.entries.emplace(key, value);
        } else {
            // Any entry at or behind the key, so that moved values go too.
            auto victim = bench.model.entries.lower_bound(key);
            if (victim == bench.model.entries.end()) return;
            for (uint64_t skip = bench.rng.below(20); skip > 0; --skip)
                if (std::next(victim) != bench.model.entries.end()) ++victim;
            index->non_unique_delete(n, victim->first, victim->second);
            bench.model.entries.erase(victim);
        }
    });
    if (work.insert_percent.back() > 0) return;
    // Emptied at last, nothing but the two roots may be left. The last search may have made an
    // empty leaf; one insertion and deletion take it away.
    for (const auto& [key, value] : std::multimap(bench.model.entries)) {
        mdb::Transaction transaction(bench.database().journal());
        index->non_unique_delete(n, key, value);
        transaction.commit();
    }
    bench.model.entries.clear();
    {
        mdb::Transaction transaction(bench.database().journal());
        index->non_unique_insert(n, key_number(1), value_number(1));
        index->non_unique_delete(n, key_number(1), value_number(1));
        transaction.commit();
    }
    bench.verify(work.steps);
    EXPECT_EQ(bench.index_blocks(), 2);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, NonUniqueIndex,
    testing::Values(Workload{"runs", 11, 6, 40'000, {80, 30, 70, 0}, 16},
                    Workload{"mixed", 12, 300, 100'000, {90, 40, 80, 10, 0}, 128},
                    Workload{"scattered", 13, 30'000, 60'000, {95, 80, 30, 0}, 512}),
    [](const auto& row) { return row.param.name; });

}  // namespace
