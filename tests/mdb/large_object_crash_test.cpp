// Power cuts at every write and sync of a workload that keeps replacing large objects between
// blocks that come and go through the journal.
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "log/log.h"
#include "mdb/database.h"
#include "mdb/format.h"
#include "mdb/large_object.h"
#include "mdb/large_object_layout.h"
#include "support/fake_clock.h"
#include "support/rng.h"
#include "support/sim_disk.h"
#include "util/byte_order.h"

namespace {

using mdb::mark_t;
using support::SimDisk;

constexpr uint32_t kBlock = 1024;
/// Header, two roots, four map blocks: a free keeps the others from one of them.
constexpr uint32_t kMapBlocks = 4;
constexpr uint32_t kFirst = 3 + kMapBlocks;
/// Where the references stand: the root of an index that isn't used. A word for the step, then for
/// each object its first block and the step that wrote it.
constexpr uint32_t kDirectory = 1;
constexpr uint32_t kObjects = 5;
constexpr int kSteps = 40;

class Workload {
  public:
    explicit Workload(uint64_t seed) : seed_(seed) {
        logging::set_all_levels(logging::level_t::off);
        mdb::FormatOptions options;
        options.database_path = "db";
        options.journal_path = "journal";
        options.block_size = kBlock;
        options.journal_size_bytes = 16 * 1024;
        options.capacity_bytes = kMapBlocks * kBlock * kBlock;
        mdb::format_database(disk, options);
        // A value that is replaced goes to another part of the file; its growth is no concern here.
        open();
        database->store().ensure_block(2 * kBlock + 100);
        database->store().sync_store();
        close();
    }

    void open() {
        close();
        mdb::Settings settings;
        settings.database_path = "db";
        settings.buffer_blocks = 8;
        database = std::make_unique<mdb::Database>(settings, disk, clock);
    }
    void close() { database.reset(); }

    void run(int step) {
        for (; step <= kSteps; ++step) {
            begun = step;
            if (transaction(step)) durable = step;
        }
    }

    /// The last step that the database shows. Fails the test unless every object is whole and every
    /// other block that is marked has been left alone.
    int shown() {
        const uint32_t step = word(kDirectory, 0);
        uint64_t blocks = 0;
        for (uint32_t object = 0; object < kObjects; ++object) {
            const uint32_t block = word(kDirectory, 4 + 8 * object);
            if (block == 0) continue;
            const uint32_t written = word(kDirectory, 8 + 8 * object);
            std::vector<std::byte> data;
            try {
                mdb::read_lob(*database, block, data);
            } catch (const mdb::error_generic& failure) {
                ADD_FAILURE() << "object " << object << ": " << failure.text();
            }
            EXPECT_EQ(data, content(object, written)) << "object " << object;
            blocks += mdb::lob_layout::block_count(data.size(), kBlock);
        }
        for (uint32_t block = kFirst; block < kMapBlocks * kBlock; ++block) {
            const mark_t mark = database->allocator().query_mark(block);
            if (mark == mark_t::lob) --blocks;
            if (mark != mark_t::leaf) continue;
            for (uint32_t at = 0; at < kBlock; at += 4)
                if (word(block, at) != block) {
                    ADD_FAILURE() << "block " << block << " at " << at;
                    break;
                }
        }
        EXPECT_EQ(blocks, 0U) << "marks and chains differ";
        return static_cast<int>(step);
    }

    SimDisk disk;
    support::FakeClock clock;
    std::unique_ptr<mdb::Database> database;
    int begun = 0;
    int durable = 0;

  private:
    /// True when it was acknowledged as durable.
    bool transaction(int step) {
        support::Rng rng(seed_ + static_cast<uint64_t>(step) * 7919);
        clock.advance_us(rng.below(400'000));
        const bool durably = rng.chance(30);
        mdb::Transaction transaction(database->journal());
        put_word(kDirectory, 0, static_cast<uint32_t>(step));
        if (rng.chance(50)) change_journalled_block(rng);
        if (rng.chance(60)) change_object(static_cast<uint32_t>(rng.below(kObjects)), step, rng);
        if (rng.chance(30)) abort_within(rng);
        transaction.commit(!durably);
        return durably;
    }
    void change_object(uint32_t object, int step, support::Rng& rng) {
        const uint32_t old = word(kDirectory, 4 + 8 * object);
        if (old != 0) mdb::free_lob(*database, old);
        uint32_t block = 0;
        if (old == 0 || rng.chance(70))
            block = mdb::write_lob(*database, content(object, static_cast<uint32_t>(step)));
        put_word(kDirectory, 4 + 8 * object, block);
        put_word(kDirectory, 8 + 8 * object, static_cast<uint32_t>(step));
    }
    /// A block like those of an index: its whole content journalled when it is taken, nothing of it
    /// when it goes.
    void change_journalled_block(support::Rng& rng) {
        mdb::Allocator& allocator = database->allocator();
        std::vector<uint32_t> taken;
        for (uint32_t block = kFirst; block < 200; ++block)
            if (allocator.query_mark(block) == mark_t::leaf) taken.push_back(block);
        if (taken.size() > 2) {
            allocator.set_mark(taken[rng.below(taken.size())], mark_t::empty);
            return;
        }
        const uint32_t block = allocator.allocate_empty_block(0, true);
        allocator.set_mark(block, mark_t::leaf);
        for (uint32_t at = 0; at < kBlock; at += 4)
            util::store_be32(reinterpret_cast<std::byte*>(buffer_) + at, block);
        database->journal().journal_update(buffer_, kBlock, database->store().block_offset(block));
    }
    void abort_within(support::Rng& rng) {
        mdb::Transaction inner(database->journal());
        const uint32_t old = word(kDirectory, 4);
        if (old != 0) mdb::free_lob(*database, old);
        (void)mdb::write_lob(*database, content(77, static_cast<uint32_t>(rng.below(1000))));
    }
    [[nodiscard]] std::vector<std::byte> content(uint32_t object, uint32_t step) const {
        support::Rng rng(seed_ + step * 1000 + object);
        std::vector<std::byte> data(rng.below(4000));
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<std::byte>(object * 50 + step + i / 100);
        return data;
    }
    void put_word(uint32_t block, uint32_t offset, uint32_t value) {
        std::byte bytes[4];
        util::store_be32(bytes, value);
        database->journal().journal_update(bytes, sizeof bytes,
                                           database->store().block_offset(block) + offset);
    }
    [[nodiscard]] uint32_t word(uint32_t block, uint32_t offset) {
        return util::load_be32(database->cache().private_block(block).data() + offset);
    }

    uint64_t seed_;
    uint8_t buffer_[kBlock] = {};
};

/// False when the cut lies past the end.
bool survives_cut(uint64_t n, uint64_t seed) {
    SCOPED_TRACE(testing::Message() << "cut at " << n << " seed " << seed);
    Workload work(seed);
    work.disk.cut_at(n, seed);
    try {
        work.open();
        work.run(1);
    } catch (const SimDisk::PowerCut&) {
    }
    if (!work.disk.cut()) {
        EXPECT_EQ(work.shown(), kSteps);
        return false;
    }
    work.close();
    work.disk.restart();
    work.open();
    const int shown = work.shown();
    EXPECT_GE(shown, work.durable) << "an acknowledged transaction is gone";
    EXPECT_LE(shown, work.begun);
    work.run(shown + 1);
    EXPECT_EQ(work.shown(), kSteps);
    work.open();
    EXPECT_EQ(work.shown(), kSteps);
    return true;
}

TEST(LargeObjectPowerCut, AtEveryWriteAndSync) {
    uint64_t n = 1;
    for (; !testing::Test::HasFailure(); ++n) {
        bool cut = false;
        for (uint64_t seed = 1; seed <= 2; ++seed) cut = survives_cut(n, n * 2 + seed) || cut;
        if (!cut) break;
    }
    EXPECT_GT(n, 100U) << "the workload was to write often";
}

}  // namespace
