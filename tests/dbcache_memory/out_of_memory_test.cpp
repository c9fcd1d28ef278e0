// Memory that runs out in the middle of a write. The server ends then: the failure passes through
// all layers, the process goes, and the next start finds a file in which the write has been done or
// has not. Before the commit nothing is left in memory either, so that what runs on the way out
// meets a whole store; from there on the journal refuses all work.
//
// Each allocation of a write fails once. What an undo allocates itself works here: where that fails
// too, the process ends at once.
#include <gtest/gtest.h>
#include <new>

#include "failing_memory.h"
#include "support/trial_world.h"

namespace dbcache_test {
namespace {

class OutOfMemoryTest : public ::testing::TestWithParam<Write> {
  protected:
    /// As at the start of the server: ids and versions run from the same numbers each time.
    void restart() {
        world->store.open();
        world->store.versions.emplace(1000);
        world->store.store->cache().cache_set_limits(1000, 1000, 1000);
        StoreSnapshot::load_all(world->store);
    }
    StoreSnapshot state_after_write() {
        world.reset();  // each takes the log over, and gives it back
        world = std::make_unique<TrialWorld>();
        restart();
        GetParam().run(*world);
        restart();
        return StoreSnapshot(world->store);
    }
    void build() {
        world.reset();  // each takes the log over, and gives it back
        world = std::make_unique<TrialWorld>();
        restart();
    }
    /// True when the write failed for lack of memory at the `n`-th allocation.
    bool fails_at(uint64_t n) {
        bool failed = false;
        Memory::get().fail_at(n);
        try {
            GetParam().run(*world);
        } catch (const std::bad_alloc&) {
            failed = true;
        }
        struck = Memory::get().struck();
        Memory::get().work();
        return failed;
    }

    std::unique_ptr<TrialWorld> world;
    bool struck = false;
};

TEST_P(OutOfMemoryTest, LeavesAWriteDoneOrNotDone) {
    const StoreSnapshot after = state_after_write();
    build();
    const StoreSnapshot before(world->store);
    ASSERT_NE(before.difference(after), "");
    int undone = 0;
    uint64_t n = 1;
    for (; n < 10'000 && !HasFailure(); ++n) {
        SCOPED_TRACE(fmt::format("allocation {}", n));
        const bool failed = fails_at(n);
        if (!struck) break;
        // From the commit on the journal alone knows, and refuses to be used.
        const bool in_commit = world->store.database->journal().failed();
        const std::string in_memory =
            in_commit ? "" : before.difference(StoreSnapshot(world->store));
        restart();
        const StoreSnapshot now(world->store);
        if (before.difference(now).empty()) {
            EXPECT_TRUE(failed);
            EXPECT_EQ(in_memory, "");
            undone += in_commit ? 0 : 1;
            continue;
        }
        EXPECT_EQ(after.difference(now), "");
        build();
    }
    EXPECT_LT(n, 10'000U);
    EXPECT_GT(undone, 5);
}

INSTANTIATE_TEST_SUITE_P(Writes, OutOfMemoryTest, ::testing::ValuesIn(kWrites),
                         [](const auto& write) { return write.param.test_name(); });

}  // namespace
}  // namespace dbcache_test
