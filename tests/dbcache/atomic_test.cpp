// All or nothing: each kind of write is made to fail at every step that can fail, by itself and
// within a transaction that goes on, and is compared with what was there before: every stored
// object and index, every handler, the cache and the index of siblings. The same write without a
// fault then succeeds, and an abort around it takes it back.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <memory>

#include "support/trial_world.h"

using namespace dbcache_test;
using dbcache::StoreTransaction;

namespace {

class AtomicTest : public ::testing::TestWithParam<Write> {
  protected:
    AtomicTest() { build(); }

    void build() {
        world.reset();  // each takes the log over, and gives it back
        world = std::make_unique<TrialWorld>();
        before = std::make_unique<StoreSnapshot>(world->store);
    }
    /// True when the write threw.
    bool fails() {
        try {
            GetParam().run(*world);
            return false;
        } catch (const error::Exception&) {
            return true;
        }
    }
    void expect_unchanged() { EXPECT_EQ(before->difference(StoreSnapshot(world->store)), ""); }
    /// The write without a fault, taken back by the transaction around it.
    void expect_possible() {
        {
            const StoreTransaction outer(*world->store.store);
            EXPECT_FALSE(fails());
        }
        expect_unchanged();
    }
    /// Has each step that `steps` counts throw.
    void fail_at_every_step(Trials TrialWorld::*steps, const std::function<void()>& thrown) {
        uint64_t k = 1;
        for (; k < 1000 && !HasFailure(); ++k) {
            SCOPED_TRACE(fmt::format("step {}", k));
            (world.get()->*steps).at_step(k, thrown);
            const bool failed = fails();
            const bool struck = (world.get()->*steps).struck();
            (world.get()->*steps).off();
            if (!failed) {
                build();
                if (!struck) break;
                continue;  // a step whose failure is no failure of the write
            }
            expect_unchanged();
            fail_within(steps, k, thrown);
            expect_possible();
        }
        EXPECT_LT(k, 1000U);
    }
    /// The same failure in a transaction that doesn't end by it.
    void fail_within(Trials TrialWorld::*steps, uint64_t k, const std::function<void()>& thrown) {
        {
            const StoreTransaction outer(*world->store.store);
            world->update("q", text(prop::label, "in the outer one"));
            const StoreSnapshot meanwhile(world->store);
            (world.get()->*steps).at_step(k, thrown);
            EXPECT_TRUE(fails());
            (world.get()->*steps).off();
            EXPECT_EQ(meanwhile.difference(StoreSnapshot(world->store)), "");
        }
        expect_unchanged();
    }

    std::unique_ptr<TrialWorld> world;
    std::unique_ptr<StoreSnapshot> before;
};

void throw_refusal() {
    throw errors::tql(errors::ERR_ILLEGAL_VALUE, "trial");
}
void throw_fault() {
    throw mdb::error_transact("Transaction log full");
}

}  // namespace

TEST_P(AtomicTest, ASchemaThatThrowsUndoesIt) {
    for (const auto& thrown : {throw_refusal, throw_fault})
        fail_at_every_step(&TrialWorld::trials, thrown);
}

TEST_P(AtomicTest, AStoreThatRefusesAChangeUndoesIt) {
    fail_at_every_step(&TrialWorld::changes, throw_fault);
}

/// Takes room in the journal until `room` bytes are left, by updates that change nothing.
void fill_journal(TestStore& store, uint32_t room) {
    // An update takes a head of 20 bytes and what it writes, together a multiple of 8.
    constexpr uint32_t kHead = 20;
    constexpr uint32_t kMost = kHead + 1020;
    const auto place = store.indexes->unique_find(mdb::node_id_index, kRootId);
    const mdb::dobj root = store.objects->load_object(*place);
    mdb::Journal& journal = store.database->journal();
    while (journal.free_space() > room) {
        const uint32_t rest = journal.free_space() - room;
        // Two for the end, so that none is left with less than a head.
        const uint32_t whole = rest > 2 * kMost ? kMost : rest > kMost ? rest / 2 & ~7U : rest;
        journal.journal_update(root.data, whole - kHead,
                               store.database->store().block_offset(root.block));
    }
}

/// The journal fills up at each of the updates of blocks that the write makes.
TEST_P(AtomicTest, AJournalWithoutRoomUndoesIt) {
    // No update of a block takes less, so each of them is the one that fails for some room.
    constexpr uint32_t kSmallestUpdate = 24;
    bool failed = true;
    uint32_t room = 8;
    for (; failed && room < 64 * 1024 && !HasFailure(); room += kSmallestUpdate) {
        SCOPED_TRACE(fmt::format("room {}", room));
        {
            const StoreTransaction outer(*world->store.store);
            fill_journal(world->store, room);
            const StoreSnapshot meanwhile(world->store);
            failed = fails();
            if (failed) {
                EXPECT_EQ(meanwhile.difference(StoreSnapshot(world->store)), "");
            }
        }
        expect_unchanged();
    }
    EXPECT_FALSE(failed);
    EXPECT_GT(room, kSmallestUpdate + 8);
}

/// Memory after a write is what a server finds that starts then, with whole lists and counters.
TEST_P(AtomicTest, WithoutAFaultMemoryAndFileAgree) {
    GetParam().run(*world);
    EXPECT_EQ(verification(world->store), "");
    StoreSnapshot::load_all(world->store);
    const StoreSnapshot after(world->store);
    EXPECT_NE(before->difference(after), "");
    world->store.open();
    world->store.store->cache().cache_set_limits(1000, 1000, 1000);
    StoreSnapshot::load_all(world->store);
    EXPECT_EQ(after.difference(StoreSnapshot(world->store)), "");
}

INSTANTIATE_TEST_SUITE_P(Writes, AtomicTest, ::testing::ValuesIn(kWrites),
                         [](const auto& write) { return write.param.test_name(); });
