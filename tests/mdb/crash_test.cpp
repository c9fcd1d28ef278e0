// Power cuts and failing disks at every write and every sync, over a workload that flips the
// journal many times.
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "log/log.h"
#include "mdb/database.h"
#include "mdb/format.h"
#include "support/fake_clock.h"
#include "support/rng.h"
#include "support/sim_disk.h"
#include "util/byte_order.h"

namespace {

using mdb::mark_t;
using support::SimDisk;

constexpr uint32_t kBlock = 1024;
/// Header, two roots, one map block.
constexpr uint32_t kFirst = 4;
constexpr uint32_t kBlocks = 12;
/// A block that is empty after every other step.
constexpr uint32_t kMarked = 40;
constexpr int kSteps = 60;

/// Every step is one transaction that writes its number to several places, so that half of one is
/// seen.
class Workload {
  public:
    explicit Workload(uint64_t seed) : seed_(seed) {
        logging::set_all_levels(logging::level_t::off);
        mdb::FormatOptions options;
        options.database_path = "db";
        options.journal_path = "journal";
        options.block_size = kBlock;
        options.journal_size_bytes = 24 * 1024;
        options.capacity_bytes = kBlock;
        mdb::format_database(disk, options);
    }

    void open() {
        close();
        mdb::Settings settings;
        settings.database_path = "db";
        settings.buffer_blocks = 3;
        database = std::make_unique<mdb::Database>(settings, disk, clock);
    }
    void close() { database.reset(); }

    /// Runs from `step` on, counting what was acknowledged as durable and what was begun.
    void run(int step) {
        for (; step <= kSteps; ++step) run_one(step);
    }
    void run_one(int step) {
        begun = step;
        if (transaction(step)) durable = step;
        committed = step;
    }

    /// The last step whose changes the database shows; fails the test if any other step shows in
    /// part.
    int shown() {
        const uint32_t step = word_at(kFirst, 0);
        for (uint32_t block = kFirst; block < kFirst + kBlocks; ++block) {
            if (!database->store().block_in_file(block)) continue;
            EXPECT_EQ(word_at(block, 16), last_visit(static_cast<int>(step), block))
                << "block " << block;
        }
        EXPECT_EQ(database->allocator().query_mark(kMarked),
                  step % 2 == 1 ? mark_t::leaf : mark_t::empty);
        return static_cast<int>(step);
    }

    SimDisk disk;
    support::FakeClock clock;
    std::unique_ptr<mdb::Database> database;
    int begun = 0;
    int committed = 0;
    int durable = 0;

  private:
    [[nodiscard]] bool visits(int step, uint32_t block) const {
        support::Rng rng(seed_ * 1'000'003 + static_cast<uint64_t>(step) * 101 + block);
        return rng.chance(35);
    }
    [[nodiscard]] uint32_t last_visit(int step, uint32_t block) const {
        while (step > 0 && !visits(step, block)) --step;
        return static_cast<uint32_t>(step);
    }

    /// True when it was acknowledged as durable.
    bool transaction(int step) {
        support::Rng rng(seed_ + static_cast<uint64_t>(step) * 7919);
        clock.advance_us(rng.below(700'000));
        const bool durably = rng.chance(30);
        database->store().ensure_block(kMarked);
        mdb::Transaction transaction(database->journal());
        write_word(kFirst, 0, step);
        int whole_blocks = 2;  // as many as a quarter of a half has room for
        for (uint32_t block = kFirst; block < kFirst + kBlocks; ++block) {
            if (!visits(step, block)) continue;
            write_word(block, 16, step);
            if (whole_blocks > 0 && rng.chance(40)) {
                write_whole_block(block);
                --whole_blocks;
            }
        }
        database->allocator().set_mark(kMarked, step % 2 == 1 ? mark_t::leaf : mark_t::empty);
        transaction.commit(!durably);
        return durably;
    }

    void write_word(uint32_t block, uint32_t offset, int value) {
        std::byte bytes[4];
        util::store_be32(bytes, static_cast<uint32_t>(value));
        database->journal().journal_update(bytes, sizeof bytes,
                                           database->store().block_offset(block) + offset);
    }
    void write_whole_block(uint32_t block) {
        const mdb::BlockBuffer bytes = database->cache().private_block(block);
        database->journal().journal_update(bytes.data(), kBlock,
                                           database->store().block_offset(block));
    }
    [[nodiscard]] uint32_t word_at(uint32_t block, uint32_t offset) {
        if (!database->store().block_in_file(block)) return 0;
        return util::load_be32(database->cache().cached_block(block) + offset);
    }

    uint64_t seed_;
};

/// Cuts at the n-th call, and again during the replay when `second_cut` isn't 0. False when n lies
/// past the end.
bool survives_cut(uint64_t n, uint64_t seed, uint64_t second_cut) {
    SCOPED_TRACE(testing::Message()
                 << "cut at " << n << " seed " << seed << " again at " << second_cut);
    Workload work(seed % 3);
    work.disk.cut_at(n, seed);
    try {
        work.open();
        work.run(1);
    } catch (const SimDisk::PowerCut&) {
    }
    if (!work.disk.cut()) return false;
    for (uint64_t again = second_cut;; again = 0) {
        work.close();
        work.disk.restart();
        if (again != 0) work.disk.cut_at(again, seed + 77);
        try {
            work.open();
            if (again != 0) work.run(work.shown() + 1);
        } catch (const SimDisk::PowerCut&) {
            continue;
        }
        break;
    }
    const int shown = work.shown();
    EXPECT_GE(shown, work.durable) << "an acknowledged transaction is gone";
    EXPECT_LE(shown, work.begun);
    // Life goes on, and nothing of the past comes back.
    const int last = shown;
    work.run(last + 1);
    EXPECT_EQ(work.shown(), kSteps);
    work.open();
    EXPECT_EQ(work.shown(), kSteps);
    return true;
}

TEST(PowerCut, AtEveryWriteAndSync) {
    uint64_t n = 1;
    for (; !testing::Test::HasFailure(); ++n) {
        bool cut = false;
        for (uint64_t seed = 1; seed <= 4; ++seed) cut = survives_cut(n, seed, 0) || cut;
        if (!cut) break;
    }
    EXPECT_GT(n, 100U) << "the workload was to write often";
}

TEST(PowerCut, AgainDuringOrAfterTheReplay) {
    support::Rng rng(4711);
    for (int round = 0; round < 200 && !testing::Test::HasFailure(); ++round)
        (void)survives_cut(1 + rng.below(250), rng.next(), 1 + rng.below(60));
}

TEST(PowerCut, DuringTheReplayOfAKilledProcess) {
    // What the dead process wrote stands in memory only when the replay begins.
    for (uint64_t n = 1, done = 0; done == 0; ++n) {
        for (uint64_t seed = 1; seed <= 30 && !testing::Test::HasFailure(); ++seed) {
            SCOPED_TRACE(testing::Message() << "cut at " << n << " seed " << seed);
            Workload work(seed);
            work.open();
            for (int step = 1; step <= 7; ++step) work.run_one(step);
            work.close();
            work.disk.cut_at(n, seed);
            try {
                work.open();
                done = n;
            } catch (const SimDisk::PowerCut&) {
                work.close();
                work.disk.restart();
                work.open();
            }
            EXPECT_GE(work.shown(), work.durable);
        }
    }
}

TEST(PowerCut, FindsTheIndexEntryOfAHalfThatWasWrittenTo) {
    // Were it lost, the next start would give the same serial to other transactions in the same
    // half.
    for (uint64_t seed = 1; seed <= 8; ++seed) {
        Workload work(0);
        work.open();
        work.database->journal().flip(false);
        const uint64_t serial = work.database->journal().current_serial();
        work.disk.cut_at(1, seed);
        EXPECT_THROW(work.run_one(1), SimDisk::PowerCut);
        work.close();
        work.disk.restart();
        work.open();
        EXPECT_EQ(work.database->journal().current_serial(), serial + 1);
    }
}

TEST(KilledProcess, LosesNothingThatWasCommitted) {
    Workload work(1);
    work.open();
    for (int step = 1; step <= kSteps; ++step) {
        // A process that dies between two calls leaves what it wrote in the hands of the system.
        work.open();
        ASSERT_EQ(work.shown(), step - 1);
        work.run_one(step);
    }
}

TEST(FailingDisk, EndsAllFurtherWork) {
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE(n);
        Workload work(2);
        work.open();
        work.disk.fail_at(n);
        bool failed = false;
        try {
            work.run(1);
        } catch (const mdb::error_io&) {
            failed = true;
        } catch (const mdb::error_dbnospace&) {
            failed = true;  // the file could not grow: no reason to end
            work.disk.restart();
            continue;
        }
        if (!failed) {
            EXPECT_GT(n, 50U);
            break;
        }
        EXPECT_TRUE(work.database->journal().failed());
        EXPECT_THROW(work.database->journal().transaction_begin(), error::EFatal);
        EXPECT_THROW(work.database->journal().journal_checkpoint(), error::EFatal);
        // Whoever still reads sees the state before or after the step, not something between.
        EXPECT_GE(work.shown(), work.committed);
        work.close();
        work.disk.restart();
        work.open();
        EXPECT_GE(work.shown(), work.committed);
    }
}

TEST(FailingDisk, AHeaderThatCouldNotBeWrittenEndsAllFurtherWork) {
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE(n);
        Workload work(2);
        work.open();
        work.run_one(1);
        work.disk.fail_at(n);
        try {
            work.database->write_header(work.database->header());
        } catch (const mdb::error_io&) {
            EXPECT_TRUE(work.database->journal().failed());
            continue;
        }
        EXPECT_GT(n, 6U) << "a checkpoint, a flip, the header and its sync";
        break;
    }
}

}  // namespace
