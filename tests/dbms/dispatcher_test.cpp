// The dispatcher with handlers of the test's own: what becomes of an event and of what a handler
// throws.
#include "dbms/dispatcher.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "io/exception.h"
#include "log/log.h"
#include "queues/records/control.h"
#include "test_family.h"

namespace dbms {
namespace {

using queues::queue_t;

/// What the handlers of this test do is told by the number of the event that they are entered
/// under.
constexpr auto kAnomaly = queues::GET_TQL_CLASS_NAMES;
constexpr auto kQuietAnomaly = queues::GET_TQL_PROPERTY_NAMES;
constexpr auto kLostAsker = queues::GET_TQL_REPARENTABLE_CLASSES;
constexpr auto kLostThird = queues::LIST_METRICS;
constexpr auto kFatal = queues::FIND_OLDEST_RECORD;
constexpr auto kSlow = queues::SOCKETIO_TIDY_CACHES;
constexpr auto kRefused = queues::REQUEST_RESULT;
constexpr auto kUnhandled = queues::DAEMONIZE_SYSTEM;

class DispatcherTest : public testing::Test, protected dbms_test::TestFamily {
  protected:
    static EventTable table() {
        EventTable rows{};
        rows[kAnomaly] = {[](EventContext&, queues::event&) { throw errors::stdanomaly("torn"); },
                          nullptr, kAnswered};
        rows[kQuietAnomaly] = {
            [](EventContext&, queues::event&) { throw errors::db_anomaly("torn"); }, nullptr, 0};
        rows[kLostAsker] = {
            [](EventContext&, queues::event&) { throw io::EEndOfStream("asker", "", 0); }, nullptr,
            kAnswered};
        rows[kLostThird] = {[](EventContext& context, queues::event&) {
                                context.services.queue.send(
                                    queues::devent<queues::SUPPORTS_METRICS>(queue_t::alrm));
                            },
                            nullptr, kAnswered};
        rows[kFatal] = {[](EventContext&, queues::event&) { throw error::EFatal("disk on fire"); },
                        nullptr, kAnswered};
        rows[kSlow] = {[](EventContext& context, queues::event&) {
                           const_cast<support::FakeClock&>(
                               dynamic_cast<const support::FakeClock&>(context.services.clock))
                               .advance_us(1'500'000);
                       },
                       nullptr, 0};
        rows[kRefused] = {[](EventContext&, queues::event&) { throw error::EFatal("was run"); },
                          [](EventContext&, queues::event&) { return false; }, 0};
        return rows;
    }

    template <queues::event_t N>
    void dispatch(uint32_t uid = 7) {
        queues::devent<N> received(queue_t::main, uid);
        dispatcher.dispatch(received);
    }

    /// The text of the exception event that the main process got as answer, or nothing.
    std::string answer() {
        settle();
        if (!main.front().isReady()) return "";
        const auto received = main.read();
        const auto* failure = dynamic_cast<const queues::exevent*>(received.get());
        return failure == nullptr ? "another event"
                                  : fmt::format("{} {}", failure->uid, failure->text);
    }

    Leftovers leftovers;
    Dispatcher dispatcher{services, table(), trace, [this] { return leftovers; }};
    std::string log;
    logging::OutletScope outlet{
        [this](logging::level_t, std::string_view line) { log += fmt::format("{}\n", line); }};
};

TEST_F(DispatcherTest, AnomalyIsAnsweredOnlyToOneWhoWaits) {
    dispatch<kAnomaly>();
    EXPECT_EQ(answer(), "7 torn");
    EXPECT_NE(log.find("[warning] Database anomaly: torn"), std::string::npos) << log;
    dispatch<kAnomaly>(queues::kNoReply);
    EXPECT_EQ(answer(), "");
    dispatch<kAnomaly>(queues::kNoReplyAllOnes);
    EXPECT_EQ(answer(), "");
    log.clear();
    dispatch<kQuietAnomaly>();
    EXPECT_EQ(answer(), "");
    EXPECT_NE(log.find("Database anomaly: torn"), std::string::npos) << log;
}

TEST_F(DispatcherTest, OnlyWhatIsNobodysFaultGoesOn) {
    dispatch<kLostAsker>();
    EXPECT_NE(log.find("[info] Lost peer: EOS from asker"), std::string::npos) << log;
    EXPECT_EQ(answer(), "");
    EXPECT_THROW(dispatch<kFatal>(), error::EFatal);
    EXPECT_NE(log.find("[error] Exception during FIND_OLDEST_RECORD : disk on fire"),
              std::string::npos)
        << log;
    EXPECT_EQ(answer(), "");
    EXPECT_EQ(dispatcher.last_event_sender(), queue_t::none);
}

// The asker lives and waits, whoever else has died.
TEST_F(DispatcherTest, ALostThirdPeerIsToldToTheAsker) {
    queue.send(queues::devent<queues::SUPPORTS_METRICS>(queue_t::alrm));
    settle();  // the parent runs no such sibling
    dispatch<kLostThird>();
    EXPECT_EQ(answer(), "7 EOS from SiblingOStream[5]: Write to failed process");
    EXPECT_NE(log.find("[info] Lost peer: EOS from SiblingOStream[5]"), std::string::npos) << log;
    dispatch<kLostThird>(queues::kNoReply);
    EXPECT_EQ(answer(), "");
}

TEST_F(DispatcherTest, UnhandledRefusedAndSlowEventsAreToldOf) {
    dispatch<kUnhandled>();
    EXPECT_NE(log.find("[warning] Got unhandled message: DAEMONIZE_SYSTEM from: main"),
              std::string::npos)
        << log;
    dispatch<kRefused>();
    dispatch<kSlow>();
    EXPECT_NE(log.find("[warning] Event SOCKETIO_TIDY_CACHES took 1.5 sec."), std::string::npos)
        << log;
    std::ifstream file(dir.file("trace"));
    std::ostringstream lines;
    lines << file.rdbuf();
    EXPECT_EQ(lines.str(), "N:\nT: 0 DAEMONIZE_SYSTEM\nN:\nT: 1500 SOCKETIO_TIDY_CACHES\n");
}

TEST_F(DispatcherTest, WhatIsLeftOverEndsTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    leftovers = {.active_transaction = true, .referenced_objects = 0};
    EXPECT_DEATH(dispatch<kUnhandled>(),
                 "Assertion failed: Active transaction after processing DAEMONIZE_SYSTEM");
    leftovers = {.active_transaction = false, .referenced_objects = 2};
    EXPECT_DEATH(dispatch<kAnomaly>(),
                 "Assertion failed: 2 referenced objects exist after GET_TQL");
}

}  // namespace
}  // namespace dbms
