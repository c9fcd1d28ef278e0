// The main loop between idle work and events: who comes first.
#include "dbms/main_loop.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <vector>

#include "queues/records/control.h"
#include "test_family.h"

namespace dbms {
namespace {

using queues::queue_t;

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

class MainLoopTest : public testing::Test, protected dbms_test::TestFamily {
  protected:
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
        const meter::Tree metrics("dbms");
        queues::Introspection introspection(queue, metrics, store.clock);
        settle();
        (void)main.read();  // what it says at first would hide the signals behind it
        MainLoop loop(services,
                      {messenger, store.database->journal(), dispatcher, introspection, log_mask},
                      {&task});
        EXPECT_THROW(loop.run(), error::EFatal);
    }

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

TEST_F(MainLoopTest, WhatAnEventHasMadeDueGoesOutBehindItOrWhenItsTimeHasCome) {
    task.most_steps = 1000;
    most_events = 3;
    const auto touch_root = [&] {
        store.engine->notify_pass(*store.engine->get({0, 1}));
        say<kNote>();
    };
    task.during_step = [&](size_t step) {
        if (step == 1) {
            const tql::pattern_t pattern(cls::Domain);
            subscribers.subscribe(queue_t::main, 1, {{{0, 1}}, pattern, 1, 0});
            subscribers.subscribe(queue_t::main, 2, {{{0, 1}}, pattern, 1, 5});
            touch_root();
        }
        if (step == 5) touch_root();
        if (step == 8) store.clock.advance_s(6);
        if (step == 12) say<kNote>();
    };
    run();
    settle();
    std::string told;
    for (; main.front().isReady(); settle())
        if (const auto received = main.read()) told += fmt::format("{} ", received->uid);
    EXPECT_EQ(told, "1 2 1 1 2 ");
    std::ifstream file(dir.file("trace"));
    const std::string lines(std::istreambuf_iterator<char>(file), {});
    EXPECT_NE(lines.find("T: 0 SUBSCRIPTION\n"), std::string::npos) << lines;
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

// The flag files have half a minute; nothing else of the server hears of it.
TEST_F(MainLoopTest, FlagFilesSwitchChannelsWhileTheServerRuns) {
    std::vector<uint64_t> seen;
    most_events = 3;
    task.most_steps = 100'000;
    const std::string flag = dir.file("log_tql_trace");
    task.during_step = [&](size_t step) {
        if (step == 1) std::ofstream(flag) << "any";
        if (step == 2) store.clock.advance_s(29);
        if (step == 3 || step == 5 || step == 8) {
            seen.push_back(log_mask.value());
            say<kNote>();
        }
        if (step == 4) store.clock.advance_s(1);
        if (step == 6) std::filesystem::remove(flag);
        if (step == 7) store.clock.advance_s(30);
    };
    run();
    EXPECT_EQ(seen, (std::vector<uint64_t>{0x80000000, 0x180000000, 0x80000000}));
}

}  // namespace
}  // namespace dbms
