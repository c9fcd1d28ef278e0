#include "util/open_hash_table.h"

#include <gtest/gtest.h>
#include <unordered_map>

#include "support/rng.h"

namespace {

using Table = open_hash_table<uint32_t, uint64_t, WordHash>;

/// Keys that differ by the slot count collide.
struct PlainHash {
    static uint32_t hash(uint32_t key) { return key; }
};
using PlainTable = open_hash_table<uint32_t, uint64_t, PlainHash>;

struct WideHash {
    static uint64_t hash(uint64_t key) { return key; }
};

template <class T>
void run_against_model(uint64_t seed, uint64_t universe, int steps) {
    SCOPED_TRACE(testing::Message() << "seed " << seed << " universe " << universe);
    support::Rng rng(seed);
    T table;
    std::unordered_map<uint32_t, uint64_t> model;
    uint64_t insert_weight = 60;
    for (int step = 0; step < steps; ++step) {
        if (step % 2000 == 0) {
            insert_weight = 20 + rng.below(60);
            ASSERT_EQ(table.verify(), "") << "step " << step;
        }
        const auto key = static_cast<uint32_t>(rng.below(universe));
        if (rng.chance(static_cast<unsigned>(insert_weight))) {
            const auto [value, fresh] = table.insert(key, rng.next());
            const auto [place, model_fresh] = model.emplace(key, *value);
            ASSERT_EQ(fresh, model_fresh) << "step " << step;
            ASSERT_EQ(*value, place->second);
        } else {
            ASSERT_EQ(table.erase(key), model.erase(key) == 1) << "step " << step;
        }
        const auto probe = static_cast<uint32_t>(rng.below(universe));
        const uint64_t* found = table.find(probe);
        const auto expected = model.find(probe);
        ASSERT_EQ(found != nullptr, expected != model.end());
        if (found != nullptr) {
            ASSERT_EQ(*found, expected->second);
        }
        ASSERT_EQ(table.used(), model.size());
    }
    ASSERT_EQ(table.verify(), "");
    size_t seen = 0;
    table.for_each([&](uint32_t key, uint64_t value) {
        ++seen;
        EXPECT_EQ(model.at(key), value);
    });
    EXPECT_EQ(seen, model.size());
}

TEST(OpenHashTable, AgreesWithAStandardMap) {
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        run_against_model<Table>(seed, 150, 40000);
        run_against_model<Table>(seed, 4000, 40000);
        run_against_model<PlainTable>(seed, 1000000, 40000);
    }
}

TEST(OpenHashTable, GrowsWhenAQuarterIsUsed) {
    Table table;
    EXPECT_EQ(table.slot_count(), 509U);
    for (uint32_t key = 0; key < 127; ++key) table.insert(key, key);
    EXPECT_EQ(table.slot_count(), 509U);  // 127 * 4 = 508
    table.insert(127, 127);
    EXPECT_EQ(table.slot_count(), 1021U);
    EXPECT_EQ(table.rehashes(), 1U);
    EXPECT_EQ(table.occupied(), 128U);
}

TEST(OpenHashTable, RehashesAtTheSameSizeWhenTombstonesPrevail) {
    Table table;
    // One key stays; every other leaves a tombstone behind.
    table.insert(1000, 1);
    for (uint32_t key = 0; key < 2; ++key) {
        table.insert(key, key);
        table.erase(key);
    }
    EXPECT_EQ(table.occupied(), 3U);
    table.insert(2, 2);  // occupied 4 is not above 3 * 2
    EXPECT_EQ(table.rehashes(), 0U);
    table.erase(2);
    table.insert(2, 2);  // takes its own tombstone again
    EXPECT_EQ(table.occupied(), 4U);
    table.erase(2);
    table.erase(1000);
    table.insert(3, 3);  // occupied 5 above 3 * 1
    EXPECT_EQ(table.rehashes(), 1U);
    EXPECT_EQ(table.occupied(), 1U);
    EXPECT_EQ(table.slot_count(), 509U);
}

TEST(OpenHashTable, ProbesOnwardAcrossTombstonesAndTheEnd) {
    PlainTable table;
    table.insert(508, 1);
    table.insert(508 + 509, 2);  // wraps to slot 0
    table.insert(508 + 2 * 509, 3);
    EXPECT_EQ(table.slow_jumps(), 0U);  // inserts don't count
    ASSERT_NE(table.find(508 + 2 * 509), nullptr);
    EXPECT_EQ(table.slow_jumps(), 2U);
    EXPECT_TRUE(table.erase(508 + 509));
    EXPECT_EQ(table.slow_jumps(), 3U);
    // The tombstone must not hide the key behind it from an insert.
    const auto [value, fresh] = table.insert(508 + 2 * 509, 9);
    EXPECT_FALSE(fresh);
    EXPECT_EQ(*value, 3U);
    EXPECT_EQ(table.occupied(), 3U);
    EXPECT_EQ(table.find(508 + 3 * 509), nullptr);
    EXPECT_EQ(table.slow_jumps(), 6U);
}

TEST(OpenHashTable, HashesInTheWidthOfItsPolicy) {
    static_assert(WordHash::hash(0x10) == 0xE3779B10U);
    open_hash_table<uint64_t, int, WideHash> table;
    // 2^32 modulo 509 is not 0, so a hash cut to 32 bits would put these two into one slot.
    table.insert(uint64_t{1} << 32, 1);
    table.insert(0, 2);
    (void)table.find(0);
    EXPECT_EQ(table.slow_jumps(), 0U);
}

}  // namespace
