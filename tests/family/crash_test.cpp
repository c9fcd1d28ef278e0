// A server that crashes in a running family: the dump, what the log says of it, and service again.
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "processes.h"
#include "running_family.h"

namespace family {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

// A copy of the program, so that its dump is nobody else's.
std::string own_server(const support::TempDir& programs) {
    const std::string path = programs.file("dbms");
    fs::copy_file(RunningFamily::program("dbms"), path);
    return path;
}

TEST(Crash, OfTheServerLeavesADumpIsToldInTheLogAndHealsItself) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer tells of crashes itself";
#endif
    const support::TempDir programs;
    const RunningFamily family(4U << 20,
                               "[siblings.dbms]\nprogram = \"" + own_server(programs) + "\"\n");
    const pid_t server = family.child_pid("dbms");
    ASSERT_EQ(::kill(server, SIGSEGV), 0);
    const std::string dump = programs.file("dbms.dmp");
    EXPECT_TRUE(
        family.logs("dbms [stderr] [error] An application error has been detected. Please "
                    "report this error and submit the dump file in '" +
                    dump + "' along with your error report"));
    EXPECT_TRUE(family.logs("main [main] [error] dbms ended unexpectedly with signal 11"));
    const std::string text = read_file(dump);
    EXPECT_THAT(text, HasSubstr("process " + std::to_string(server)));
    EXPECT_THAT(text, HasSubstr("Sent by process " + std::to_string(::getpid())));
    EXPECT_THAT(text, HasSubstr("dbms::MainLoop::run()"));
    EXPECT_THAT(text, HasSubstr("main_loop.cpp:"));
    EXPECT_TRUE(wait_for([&] {
        const pid_t now = family.child_pid("dbms");
        return now > 0 && now != server;
    }));
    EXPECT_TRUE(family.wait_healthy());
}

}  // namespace
}  // namespace family
