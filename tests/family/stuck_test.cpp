// Siblings that are alive and go on with nothing: they hold up nobody but themselves.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "io/exception.h"
#include "processes.h"
#include "queues/records/control.h"
#include "running_family.h"
#include "scripted_family.h"

namespace family {
namespace {

using queues::queue_t;

/// A family that has started a sibling which never comes up; the test takes its place.
struct Stage {
    explicit Stage(const std::string& settings)
        : family(4U << 20, settings + sleeping_sibling(programs, "extra")),
          access(family.pool_access(pool)) {
        EXPECT_TRUE(family.logs("Started extra"));
    }
    [[nodiscard]] std::unique_ptr<Actor> take_the_place() const {
        auto rogue = std::make_unique<Actor>(queue_t::extra, access, -1, -1);
        io::waitReady(rogue->messenger.sibling(0)->out());
        return rogue;
    }

    support::TempDir programs;
    RunningFamily family;
    platform::Fd pool;
    io::PoolAccess access;
};

/// One message of `words` to the main process.
void say_words(Actor& rogue, const std::vector<uint32_t>& words) {
    auto main = rogue.messenger.sibling(0);
    uint8_t* room = nullptr;
    (void)main->out().writeBegin(room);
    std::memcpy(room, words.data(), words.size() * sizeof(uint32_t));
    main->out().writeCommit(words.size() * sizeof(uint32_t));
    rogue.messenger.flush();
}

const std::vector<uint32_t> kHalfARecord = {queues::SYSTEM_LOG_REQUEST, 0};

// The main process goes on while the rest of a record is missing: it starts others again, and
// stops the family, ending nobody by force but the one that is stuck.
TEST(Stuck, AHalfSentRecordHoldsUpNobody) {
    Stage stage("stuck_warning_ms = 100\nstop_timeout_s = 1\n");
    RunningFamily& family = stage.family;
    const auto rogue = stage.take_the_place();
    say_words(*rogue, kHalfARecord);
    EXPECT_TRUE(family.logs("extra is silent in the middle of a record for "));
    const pid_t server = family.child_pid("dbms");
    ::kill(server, SIGKILL);
    EXPECT_TRUE(wait_for([&] {
        const pid_t now = family.child_pid("dbms");
        return now > 0 && now != server;
    }));
    EXPECT_TRUE(family.wait_healthy()) << family.log_text();
    EXPECT_EQ(family.stop().code, 1);
    EXPECT_TRUE(family.logs("extra did not stop in 1 s, ending it by force"));
    for (const char* name : {"wapi", "dbms"})
        EXPECT_TRUE(family.logs(fmt::format("{} stopped with exit code 0", name)))
            << family.log_text();
}

TEST(Stuck, WhoGoesOnWithNothingIsStartedAgain) {
    struct Case {
        std::function<void(Actor&)> act;
        std::string text;
    };
    const Case cases[] = {
        {[](Actor& rogue) { say_words(rogue, kHalfARecord); },
         "is silent in the middle of a record for 0 s"},
        {[](Actor& rogue) {
             say_words(rogue, {206, 0, 1, 0});
         },
         "cannot be understood: Malformed record: event number 206"},
        {[](Actor& rogue) {
             for (uint32_t i = 0; i < 100; ++i)
                 rogue.queue.send(queues::devent<queues::GET_PSEUDO_RANDOM>(
                     queue_t::main, rogue.queue.new_uid(), {.bytes = 1U << 16}));
             rogue.messenger.flush();
         },
         "does not read what it is told"},
    };
    Stage stage("stuck_warning_ms = 20\nstuck_limit_ms = 100\n");
    RunningFamily& family = stage.family;
    const pid_t server = family.child_pid("dbms"), gateway = family.child_pid("wapi");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const pid_t process = family.child_pid("sleep");
        const auto rogue = stage.take_the_place();
        c.act(*rogue);
        EXPECT_TRUE(family.logs("extra " + c.text + ", ending it by force")) << family.log_text();
        ASSERT_TRUE(wait_for([&] {
            const pid_t now = family.child_pid("sleep");
            return now > 0 && now != process;
        })) << family.log_text();
    }
    EXPECT_EQ(family.child_pid("dbms"), server);
    EXPECT_EQ(family.child_pid("wapi"), gateway);
    EXPECT_TRUE(family.wait_healthy());
    EXPECT_EQ(family.stop().code, 0);
}

}  // namespace
}  // namespace family
