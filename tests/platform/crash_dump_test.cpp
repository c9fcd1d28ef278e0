// Processes that crash in every way there is, and what they leave behind.
#include "platform/crash_dump.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/temp_dir.h"

namespace crash_test {

// Not static and never inlined, so that the trace has to name them.
volatile int sink = 0;

[[gnu::noinline]] void follow_a_null_pointer() {
    volatile int* nowhere = nullptr;
    *nowhere = 1;
}

[[gnu::noinline]] int call_myself(int depth) {
    volatile char room[1000];
    if (depth < 0) return 0;
    room[0] = static_cast<char>(depth);
    sink = sink + call_myself(depth + 1) + room[0];
    return sink;
}

[[gnu::noinline]] void divide_by_zero() {
    volatile int zero = 0;
    sink = 1000 / zero;
}

[[gnu::noinline]] void throw_to_nobody() {
    throw std::runtime_error("nobody's fault");
}

[[gnu::noinline]] void hold_the_heap_and_abort() {
    // A broken heap: the look-up of names crashes too or works, the dump is there in any case.
    // By a detour, or the compiler sees the fault coming.
    void* volatile memory = std::malloc(24);
    auto* block = static_cast<volatile size_t*>(memory);
    block[-1] = 0x123456789;
    std::free(const_cast<size_t*>(block));
    std::abort();
}

[[gnu::noinline]] void be_killed() {
    sink = ::kill(::getpid(), SIGSEGV);  // not the last thing done, or there is no frame of it
}

std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

struct Outcome {
    int signal = 0;  ///< that ended the process
    std::string errors;
};

/// Runs `crash` in a process whose working directory is `dir`, as the program `program`.
Outcome run(const support::TempDir& dir, const std::string& program,
            const std::function<void()>& crash, const std::string& crash_directory = {}) {
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit no_core{0, 0};
        ::setrlimit(RLIMIT_CORE, &no_core);
        const int errors =
            ::open(dir.file("errors").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (::dup2(errors, STDERR_FILENO) < 0 || ::chdir(dir.file("").c_str()) != 0) ::_exit(99);
        platform::install_crash_dump(program);
        platform::set_crash_directory(crash_directory);
        crash();
        ::_exit(98);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << WEXITSTATUS(status);
    return {.signal = WTERMSIG(status), .errors = read(dir.file("errors"))};
}

class CrashDump : public testing::Test {
  protected:
    void SetUp() override {
        const pid_t child = ::fork();
        if (child == 0) ::_exit(platform::install_crash_dump("") ? 0 : 1);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        if (WEXITSTATUS(status) != 0)
            GTEST_SKIP() << "a sanitizer watches this build and tells of crashes itself";
    }
    support::TempDir dir;
};

TEST_F(CrashDump, EveryCrashLeavesATraceWithNamesBesideTheProgram) {
    const struct {
        const char* what;
        void (*crash)();
        int signal;
        std::vector<std::string> told;
    } cases[] = {
        {"null", follow_a_null_pointer, SIGSEGV, {"At address 0x0\n", "follow_a_null_pointer()"}},
        {"overflow", [] { call_myself(0); }, SIGSEGV, {"call_myself(int)", "more frames"}},
        {"division", divide_by_zero, SIGFPE, {"divide_by_zero()"}},
        {"exception",
         [] { std::thread(throw_to_nobody).join(); },  // the framework catches on this one
         SIGABRT,
         {"unhandled exception std::runtime_error: nobody's fault", "throw_to_nobody()"}},
        {"strange exception",
         [] { std::thread([] { throw 5; }).join(); },
         SIGABRT,
         {"Reason: unhandled exception int"}},
        {"heap", hold_the_heap_and_abort, SIGABRT, {"Stack of the thread"}},
        {"signal", be_killed, SIGSEGV, {"Sent by process", "be_killed()"}},
        {"illegal", [] { ::raise(SIGILL); }, SIGILL, {"SIGILL"}},
        {"bus", [] { ::raise(SIGBUS); }, SIGBUS, {"SIGBUS"}},
    };
    const std::string dump = dir.file("some.program.dmp");
    for (const auto& one : cases) {
        SCOPED_TRACE(one.what);
        const Outcome outcome = run(dir, dir.file("some.program.old"), one.crash);
        EXPECT_EQ(outcome.signal, one.signal);
        EXPECT_NE(outcome.errors.find("An application error has been detected. Please report this "
                                      "error and submit the dump file in '" +
                                      dump + "' along with your error report\n"),
                  std::string::npos)
            << outcome.errors;
        const std::string text = read(dump);
        for (const std::string& told : one.told)
            EXPECT_NE(text.find(told), std::string::npos) << told << " in " << text;
        EXPECT_NE(text.find("#0"), std::string::npos) << text;
        EXPECT_NE(text.find("[stack]"), std::string::npos) << "the mappings";
        ASSERT_EQ(::unlink(dump.c_str()), 0);
    }
    (void)run(dir, dir.file("plain"), follow_a_null_pointer);
    const std::string text = read(dir.file("plain.dmp"));
    EXPECT_NE(text.find("crash_dump_test.cpp:"), std::string::npos) << "lines are told: " << text;
}

TEST_F(CrashDump, WithoutAPlaceBesideTheProgramItGoesElsewhereAndSaysWhere) {
    const std::string nowhere = dir.file("errors/program");  // below a file there is nothing
    const std::string refused = "Failed to create dump file '" + nowhere + ".dmp' (error 20)\n";
    ASSERT_EQ(::mkdir(dir.file("logs").c_str(), 0700), 0);

    Outcome outcome = run(dir, nowhere, be_killed, dir.file("logs"));
    EXPECT_EQ(outcome.errors.find(refused), 0U) << outcome.errors;
    EXPECT_NE(outcome.errors.find("'" + dir.file("logs/program.dmp") + "'"), std::string::npos);
    EXPECT_NE(read(dir.file("logs/program.dmp")).find("be_killed()"), std::string::npos);

    outcome = run(dir, nowhere, be_killed, dir.file("missing"));
    EXPECT_NE(outcome.errors.find("'quenmora.dmp' along"), std::string::npos) << outcome.errors;
    EXPECT_NE(read(dir.file("quenmora.dmp")).find("be_killed()"), std::string::npos);

    ASSERT_EQ(::unlink(dir.file("quenmora.dmp").c_str()), 0);
    outcome = run(dir, "", be_killed);
    EXPECT_EQ(outcome.errors.find("An application error"), 0U) << outcome.errors;
    EXPECT_NE(read(dir.file("quenmora.dmp")).find("be_killed()"), std::string::npos);

    // A link in the way is not followed; with no place at all the trace goes to the error stream.
    ASSERT_EQ(::unlink(dir.file("quenmora.dmp").c_str()), 0);
    ASSERT_EQ(::symlink("victim", dir.file("quenmora.dmp").c_str()), 0);
    outcome = run(dir, nowhere, be_killed);
    EXPECT_NE(outcome.errors.find("'quenmora.dmp' (error 40)"), std::string::npos);
    EXPECT_NE(outcome.errors.find("be_killed()"), std::string::npos) << outcome.errors;
    EXPECT_NE(::access(dir.file("victim").c_str(), F_OK), 0);
}

TEST_F(CrashDump, AFullDiskIsToldAndTheProcessEndsAllTheSame) {
    const Outcome outcome = run(dir, dir.file("program"), [] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit little{600, 600};
        ::setrlimit(RLIMIT_FSIZE, &little);
        be_killed();
    });
    EXPECT_EQ(outcome.signal, SIGSEGV);
    EXPECT_NE(outcome.errors.find("Failed to save dump file to '" + dir.file("program.dmp") +
                                  "' (error 27)"),
              std::string::npos)
        << outcome.errors;
}

}  // namespace crash_test
