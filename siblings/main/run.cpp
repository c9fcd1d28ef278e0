#include "main/run.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>

#include "error/exception.h"
#include "main/family.h"
#include "platform/crash_dump.h"

namespace mainprocess {

namespace {

std::string program_directory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

/// The signals that stop the family as a descriptor: SIGINT and SIGTERM, and the end of the
/// terminal, unless that is to be outlived (nohup).
platform::Fd stop_signals() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGINT);
    ::sigaddset(&set, SIGTERM);
    struct sigaction hangup {};
    ::sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) ::sigaddset(&set, SIGHUP);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    platform::Fd fd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd) throw error::ESystemError("Cannot watch for signals", errno);
    return fd;
}

}  // namespace

int run(const RunOptions& options) {
    // Whatever the family makes is for its own user.
    ::umask(S_IRWXG | S_IRWXO);
    try {
        const std::string programs = program_directory();
        Config config = options.config_path.empty() ? default_config(programs)
                                                    : read_config(options.config_path, programs);
        platform::set_crash_directory(config.log_dir);
        platform::ignore_broken_pipe_signal();
        const platform::Fd stop = stop_signals();
        const platform::SystemClock clock;
        Family family(std::move(config), clock, stop.get());
        return family.run();
    } catch (const error::Exception& failure) {
        std::fprintf(stderr, "Caught: %s\n", failure.what());
        return 1;
    }
}

}  // namespace mainprocess
