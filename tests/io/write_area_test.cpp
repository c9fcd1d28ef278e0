// The block allocator against a model and against headers worked out by hand.
#include "io/write_area.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <vector>

#include "io/pool_layout.h"
#include "support/rng.h"

namespace {

using io::WriteArea;

struct Pool {
    explicit Pool(uint64_t area_bytes) : bytes(64 + area_bytes), area(bytes.data()) {
        area.init(64, area_bytes);
    }
    uint64_t write(uint64_t length) {
        const auto block = area.currentBlock();
        EXPECT_GE(block.size, length);
        std::memset(block.payload, 'x', length);
        return area.publish(length);
    }
    [[nodiscard]] uint64_t word(uint64_t offset) const {
        uint64_t value = 0;
        std::memcpy(&value, bytes.data() + offset, sizeof value);
        return value;
    }

    std::vector<uint8_t> bytes;
    WriteArea area;
};

// Area of 96 bytes at 64: one free block with 80 bytes of payload.
TEST(WriteArea, PublishSplitsOrTakesTheWholeBlock) {
    struct Row {
        uint64_t length;
        uint64_t prev_and_flags;  // of the used block
        uint64_t new_free;        // offset of the free remainder, 0 for none
        uint64_t free_length;
    };
    const Row rows[] = {
        {1, 1, 64 + 24, 96 - 24 - 16},  // rounded to 8
        {8, 1, 64 + 24, 96 - 24 - 16},  //
        {9, 1, 64 + 32, 96 - 32 - 16},  //
        {56, 1, 64 + 72, 8},            //
        {57, 1, 64 + 80, 0},            // a remainder of a bare header
        {64, 1, 64 + 80, 0},            // 64 + 32 is not above 96
        {65, 3, 0, 0},                  // eight bytes are left over: spare
        {72, 3, 0, 0},                  //
        {73, 1, 0, 0},                  // rounding reaches the end
        {80, 1, 0, 0},                  //
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.length);
        Pool pool(96);
        EXPECT_EQ(pool.write(row.length), 64u);
        EXPECT_EQ(pool.word(64), row.prev_and_flags);
        EXPECT_EQ(pool.word(72), row.length);
        if (row.new_free != 0) {
            EXPECT_EQ(pool.word(row.new_free), 64u);
            EXPECT_EQ(pool.word(row.new_free + 8), row.free_length);
        }
        EXPECT_EQ(pool.area.hasFreeBlock(), row.free_length != 0);
        const uint64_t used[] = {64};
        EXPECT_EQ(pool.area.check_area(used), "");
        EXPECT_EQ(pool.area.release(64), row.free_length == 0);
        EXPECT_EQ(pool.area.check_area({}), "");
        EXPECT_EQ(pool.area.currentBlock().size, 80u);
    }
}

// Four blocks of 16 bytes payload (32 with header) fill 128 bytes; each order of release must end
// in one free block.
TEST(WriteArea, EveryOrderOfReleaseMerges) {
    std::vector<uint64_t> order = {64, 96, 128, 160};
    do {
        Pool pool(128);
        for (int i = 0; i < 4; ++i) pool.write(16);
        EXPECT_FALSE(pool.area.hasFreeBlock());
        std::vector<uint64_t> used = {64, 96, 128, 160};
        bool first = true;
        for (const uint64_t offset : order) {
            SCOPED_TRACE(offset);
            EXPECT_EQ(pool.area.release(offset), first);
            if (first) {
                EXPECT_EQ(pool.area.searchOffset(), offset);
            }
            first = false;
            std::erase(used, offset);
            ASSERT_EQ(pool.area.check_area(used), "");
        }
        EXPECT_EQ(pool.area.currentBlock().size, 112u);
    } while (std::next_permutation(order.begin(), order.end()));
}

// Where the search offset goes when its block merges: A..D as above, E the free rest of the area.
TEST(WriteArea, SearchOffsetFollowsTheMergedBlock) {
    Pool pool(256);
    for (int i = 0; i < 4; ++i) pool.write(16);  // 64, 96, 128, 160
    EXPECT_EQ(pool.area.searchOffset(), 192u);
    pool.area.release(64);  // away from the search offset
    EXPECT_EQ(pool.area.searchOffset(), 192u);
    pool.area.release(160);  // the block behind is where the search stands
    EXPECT_EQ(pool.area.searchOffset(), 160u);
    pool.area.release(96);  // the block before merges, the search stands elsewhere
    EXPECT_EQ(pool.area.searchOffset(), 160u);
    pool.area.release(128);  // between two free ones
    EXPECT_EQ(pool.area.searchOffset(), 64u);
    EXPECT_EQ(pool.area.check_area({}), "");
    // The search stands at the block before the released one.
    Pool other(96);
    other.write(80);
    other.area.release(64);
    other.write(16);
    const uint64_t second = other.write(40);
    EXPECT_FALSE(other.area.hasFreeBlock());
    other.area.release(64);
    EXPECT_EQ(other.area.searchOffset(), 64u);
    other.area.release(second);
    EXPECT_EQ(other.area.searchOffset(), 64u);
    EXPECT_EQ(other.area.currentBlock().size, 80u);
}

TEST(WriteArea, CheckNamesTheBrokenInvariant) {
    struct Row {
        uint64_t offset;
        uint64_t value;
        const char* fault;
    };
    // Used at 64 and 96, free from 128 to 192.
    const Row rows[] = {
        {72, 15, ""},  {72, 17, "A1"}, {72, 4096, "A1"}, {96, 1, "A2"},  {96, 96, "A2"},
        {64, 0, "A5"}, {104, 0, "A5"}, {136, 40, "A"},   {128, 97, "A"}, {128, 96 | 2, "A"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.offset << " = " << row.value);
        Pool pool(128);
        pool.write(16);
        pool.write(16);
        std::memcpy(pool.bytes.data() + row.offset, &row.value, sizeof row.value);
        const uint64_t used[] = {64, 96};
        const std::string fault = pool.area.check_area(used);
        EXPECT_EQ(fault.substr(0, std::strlen(row.fault)), row.fault) << fault;
        EXPECT_EQ(fault.empty(), *row.fault == '\0') << fault;
    }
}

void run_against_model(uint64_t seed, uint64_t area_bytes, uint64_t max_length) {
    SCOPED_TRACE(testing::Message() << "seed " << seed << " area " << area_bytes);
    support::Rng rng(seed);
    Pool pool(area_bytes);
    std::map<uint64_t, std::pair<uint64_t, uint8_t>> model;  // offset: length, fill
    const uint64_t write_percent = 40 + rng.below(30);
    for (int step = 0; step < 4000; ++step) {
        if (pool.area.hasFreeBlock() && rng.below(100) < write_percent) {
            const auto block = pool.area.currentBlock();
            const uint64_t length = 1 + rng.below(std::min(block.size, max_length));
            const auto fill = static_cast<uint8_t>(rng.next());
            std::memset(block.payload, fill, length);
            const uint64_t offset = pool.area.publish(length);
            ASSERT_TRUE(model.emplace(offset, std::make_pair(length, fill)).second);
        } else if (!model.empty()) {
            auto victim = std::next(model.begin(), static_cast<long>(rng.below(model.size())));
            const auto [length, fill] = victim->second;
            ASSERT_EQ(io::pool_layout::load_length(pool.bytes.data(), victim->first), length);
            for (uint64_t i = 0; i < length; ++i)
                ASSERT_EQ(pool.bytes[victim->first + 16 + i], fill);
            const bool was_full = !pool.area.hasFreeBlock();
            ASSERT_EQ(pool.area.release(victim->first), was_full);
            model.erase(victim);
        }
        std::vector<uint64_t> used;
        for (const auto& entry : model) used.push_back(entry.first);
        ASSERT_EQ(pool.area.check_area(used), "") << "step " << step;
    }
    for (const auto& entry : model) pool.area.release(entry.first);
    EXPECT_EQ(pool.area.currentBlock().size, area_bytes - 16);
}

TEST(WriteArea, RandomWritesAndReleasesKeepTheInvariants) {
    for (uint64_t seed = 1; seed <= 10; ++seed) {
        run_against_model(seed, 64, 40);
        run_against_model(seed, 200, 60);
        run_against_model(seed, 1024, 100);
        run_against_model(seed, 4096, 4096);
    }
}

}  // namespace
