#include "platform/process.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "error/exception.h"

extern char** environ;

namespace platform {

namespace {

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> merged_environment(const SpawnRequest& request) {
    std::vector<std::string> result;
    for (const auto& [name, value] : request.environment) result.push_back(name + "=" + value);
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        bool replaced = false;
        for (const auto& added : request.environment) replaced = replaced || added.first == name;
        if (!replaced) result.push_back(text);
    }
    return result;
}

// Runs in the new process: only calls that are safe between fork and exec.
[[noreturn]] void run_child(const SpawnRequest& request, char* const* arguments,
                            char* const* environment, int report_fd, pid_t parent) {
    if (request.own_process_group) ::setpgid(0, 0);
    if (request.ends_with_parent) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);  // it ended before it could be tied to us
    }
    if (request.error_fd >= 0) ::dup2(request.error_fd, STDERR_FILENO);
    for (int fd : request.inherited_fds) {
        const int flags = ::fcntl(fd, F_GETFD);
        if (flags >= 0) ::fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC);
    }
    for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_DFL);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(arguments[0], arguments, environment);
    const int code = errno;
    [[maybe_unused]] const ssize_t written = ::write(report_fd, &code, sizeof code);
    ::_exit(127);
}

}  // namespace

ChildProcess spawn(const SpawnRequest& request) {
    std::vector<std::string> arguments{request.program};
    arguments.insert(arguments.end(), request.arguments.begin(), request.arguments.end());
    std::vector<std::string> environment = merged_environment(request);
    const std::vector<char*> argument_pointers = pointers_to(arguments);
    const std::vector<char*> environment_pointers = pointers_to(environment);
    const std::string failure_text = "Cannot start " + request.program;

    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) throw error::ESystemError(failure_text, errno);
    Fd report_read(report[0]);
    Fd report_write(report[1]);

    ChildProcess child;
    const pid_t parent = ::getpid();
    child.pid = ::fork();
    if (child.pid < 0) throw error::ESystemError(failure_text, errno);
    if (child.pid == 0)
        run_child(request, argument_pointers.data(), environment_pointers.data(), report[1],
                  parent);
    report_write.reset();
    child.pidfd = open_pidfd(child.pid);

    // The report pipe ends by itself when the program was loaded.
    int code = 0;
    ssize_t count = 0;
    do {
        count = ::read(report_read.get(), &code, sizeof code);
    } while (count < 0 && errno == EINTR);
    if (count == sizeof code) {
        wait_for_end(child);
        throw error::ESystemError(failure_text, code);
    }
    return child;
}

ExitStatus wait_for_end(const ChildProcess& child) {
    int status = 0;
    while (::waitpid(child.pid, &status, 0) < 0)
        if (errno != EINTR) throw error::ESystemError("Cannot wait for process", errno);
    if (WIFSIGNALED(status)) return {true, WTERMSIG(status)};
    return {false, WEXITSTATUS(status)};
}

void outlive_parent() {
    ::prctl(PR_SET_PDEATHSIG, 0);
}

Fd open_pidfd(pid_t pid) {
    const long fd = ::syscall(SYS_pidfd_open, pid, 0);
    if (fd < 0) throw error::ESystemError("Cannot watch process", errno);
    return Fd(static_cast<int>(fd));
}

}  // namespace platform
