// Children of a process: what they are started with, and what becomes of them without their parent.
#include "platform/process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include "error/exception.h"
#include "io/stream.h"
#include "io/system_handle.h"

namespace {

// It must not live to meet the next family of its parent's name.
TEST(Processes, AChildThatIsNotUpEndsWithItsParent) {
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    platform::ChildProcess parent;
    parent.pid = ::fork();
    if (parent.pid == 0) {
        const platform::ChildProcess child = platform::spawn(
            {.program = "/bin/sleep", .arguments = {"600"}, .ends_with_parent = true});
        [[maybe_unused]] const ssize_t count = ::write(report[1], &child.pid, sizeof child.pid);
        ::pause();
    }
    parent.pidfd = platform::open_pidfd(parent.pid);
    pid_t pid = -1;
    ASSERT_EQ(::read(report[0], &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
    const platform::Fd child_end = platform::open_pidfd(pid);
    ::kill(parent.pid, SIGKILL);
    EXPECT_TRUE(platform::wait_for_end(parent).by_signal);
    pollfd end{.fd = child_end.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&end, 1, 10'000), 1);
    ::kill(pid, SIGKILL);
    ::close(report[0]);
    ::close(report[1]);
}

TEST(Processes, SpawnPassesEnvironmentAndDescriptors) {
    const int memfd = ::memfd_create("test", MFD_CLOEXEC);
    platform::SpawnRequest request;
    request.program = "/bin/sh";
    request.arguments = {
        "-c", "test \"$TARMIK_A\" = b && echo x >&" + std::to_string(memfd) + " && exit 7"};
    request.environment = {{"TARMIK_A", "b"}};
    request.inherited_fds = {memfd};
    const platform::ChildProcess child = platform::spawn(request);
    io::FdSelectable end(child.pidfd.get(), "end");
    io::waitReady(end);
    const platform::ExitStatus status = platform::wait_for_end(child);
    EXPECT_FALSE(status.by_signal);
    EXPECT_EQ(status.code, 7);
    char written[2] = {};
    EXPECT_EQ(::pread(memfd, written, 2, 0), 2);
    ::close(memfd);

    request.program = "/nowhere/at/all";
    EXPECT_THROW(static_cast<void>(platform::spawn(request)), error::ESystemError);
}

}  // namespace
