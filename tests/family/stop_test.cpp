// The orderly stop of a whole family when something goes wrong in the middle of it.
#include <gtest/gtest.h>
#include <signal.h>

#include "processes.h"
#include "running_family.h"

namespace family {
namespace {

TEST(Stop, AServerThatDiesMeanwhileIsNotWaitedFor) {
    RunningFamily family;
    const pid_t gateway = family.child_pid("wapi");
    const pid_t server = family.child_pid("dbms");
    ASSERT_GT(gateway, 0);
    ASSERT_GT(server, 0);
    // The gateway holds up its own stop, so the server is still needed when it dies.
    ::kill(gateway, SIGSTOP);
    ::kill(family.main_pid(), SIGTERM);
    ASSERT_TRUE(family.logs("Stopping the family"));
    ::kill(server, SIGKILL);
    EXPECT_TRUE(family.logs("dbms ended unexpectedly with signal 9"));
    ::kill(gateway, SIGCONT);
    EXPECT_EQ(family.wait_for_end().code, 0);
}

TEST(Stop, SiblingsThatNeedEachOtherAreStoppedTogether) {
    const support::TempDir programs;
    // The server says that it needs the store of series, which is started after the server.
    RunningFamily family(4U << 20, "start_warning_ms = 50\n" + sleeping_sibling(programs, "tsdb"));
    ASSERT_TRUE(family.logs("Started tsdb"));
    ASSERT_TRUE(family.logs("tsdb is not up after "));
    EXPECT_EQ(family.stop().code, 0);
    EXPECT_TRUE(family.logs("dbms stopped with exit code 0"));
}

TEST(Stop, TheEndOfTheTerminalStopsTheFamilyInOrder) {
    RunningFamily family;
    for (int i = 0; i < 2; ++i) ::kill(family.main_pid(), SIGHUP);
    EXPECT_EQ(family.wait_for_end().code, 0);
    EXPECT_TRUE(family.logs("dbms stopped with exit code 0"));
}

// The reason why a process ended stands in its log file.
TEST(Errors, LastWordsAreInTheLog) {
    const support::TempDir programs;
    RunningFamily family(
        4U << 20, scripted_sibling(programs, "extra",
                                   "echo 'a whole line' >&2\nprintf 'and a rest' >&2\nexit 3\n"));
    ASSERT_TRUE(family.logs("extra ended unexpectedly with exit code 3"));
    const std::string log = family.log_text();
    const size_t whole = log.find(" extra [stderr] [error] a whole line\n");
    const size_t rest = log.find(" extra [stderr] [error] and a rest\n");
    EXPECT_NE(whole, std::string::npos) << log;
    EXPECT_NE(rest, std::string::npos) << log;
    EXPECT_LT(whole, rest);
    EXPECT_EQ(family.stop().code, 0);
}

}  // namespace
}  // namespace family
