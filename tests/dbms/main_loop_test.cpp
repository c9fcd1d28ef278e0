// The main loop between idle work and events: who comes first.
#include "dbms/main_loop.h"

#include <functional>
#include <gtest/gtest.h>
#include <vector>

#include "io/exception.h"
#include "io/parent_messenger.h"
#include "queues/records/control.h"
#include "support/test_store.h"

namespace dbms {
namespace {

using queues::queue_t;

struct Policy final : io::ParentPolicy {
    uint32_t sliceSize(uint32_t) override { return 1 << 16; }
    bool requestPeer(uint32_t, uint32_t) override { return false; }
};

/// Counts its steps, and has something said to the server in the middle of some of them.
struct CountingTask final : idle::IdleTask {
    [[nodiscard]] bool has_work() const override { return steps < most_steps; }
    void doWork() override {
        ++steps;
        if (during_step) during_step(steps);
    }

    size_t most_steps = 0;
    size_t steps = 0;
    std::function<void(size_t step)> during_step;
};

constexpr auto kNote = queues::GET_TQL_CLASS_NAMES;

class MainLoopTest : public testing::Test {
  protected:
    MainLoopTest()
        : parent(dir.file("fifo"), 1 << 20, policy),
          main(parent, store.clock),
          messenger(static_cast<uint32_t>(queue_t::dbms), parent.access()),
          queue(messenger, store.clock) {
        // Each side has to hear of the other.
        for (int round = 0; round < 4; ++round) {
            serve(parent);
            serve(messenger);
        }
    }

    static void serve(io::SiblingMessenger& one) {
        io::BareSelector selector;
        selector.add(one.someSibling());
        try {
            (void)selector.select(io::wait_t::non_blocking);
        } catch (const io::ENotReady&) {
        }
        selector.remove(one.someSibling());
    }

    /// The main process says something; the signal is on its way to the server.
    template <queues::event_t N>
    void say() {
        main.send(queues::devent<N>(queue_t::dbms, 7));
        serve(parent);
    }

    /// Runs until as many events were taken as are wanted. The dispatcher asks after each event
    /// what it has left behind.
    void run() {
        Dispatcher dispatcher(services, EventTable{}, trace, [this] {
            taken_after.push_back(task.steps);
            if (taken_after.size() == most_events) throw error::EFatal("enough");
            return Leftovers{};
        });
        MainLoop loop(services, messenger, store.database->journal(), dispatcher, {&task}, nullptr);
        EXPECT_THROW(loop.run(), error::EFatal);
    }

    support::TempDir dir;
    dbcache_test::TestStore store;
    Policy policy;
    io::ParentMessenger parent;
    queues::childqueue main;
    io::ChildMessenger messenger;
    queues::childqueue queue;
    control::Server_Configuration_Fields config;
    Services services{store.clock, queue, config, *store.engine, *store.store, *store.versions};
    EventTrace trace{""};
    CountingTask task;
    /// How many steps there had been when each event was taken.
    std::vector<size_t> taken_after;
    size_t most_events = 0;
};

TEST_F(MainLoopTest, AnEventWaitsForOneStepAtMost) {
    task.most_steps = 1000;
    most_events = 6;
    std::vector<size_t> said_in;
    const auto note = [&](size_t step) {
        said_in.push_back(step);
        say<kNote>();
    };
    note(0);
    task.during_step = [&](size_t step) {
        if (step % 10 != 3) return;
        note(step);
        if (step == 23) note(step);
    };
    run();
    ASSERT_EQ(taken_after.size(), most_events);
    for (size_t i = 0; i < most_events; ++i) {
        EXPECT_GE(taken_after[i], said_in[i]);
        EXPECT_LE(taken_after[i], said_in[i] + 1) << "event " << i;
    }
}

TEST_F(MainLoopTest, NoIdleWorkIsDoneWhileTheServerStops) {
    task.most_steps = 1000;
    most_events = 1;
    task.during_step = [&](size_t step) {
        if (step != 5) return;
        say<queues::SYS_EXIT>();
        say<kNote>();
    };
    run();
    EXPECT_EQ(taken_after, std::vector<size_t>{5}) << "the event is still dispatched";
    EXPECT_LE(task.steps, 6U);
}

}  // namespace
}  // namespace dbms
