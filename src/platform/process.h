// Child processes: start one with chosen descriptors and environment, and learn of its end through
// a pidfd.
#pragma once

#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "platform/fifo.h"

namespace platform {

struct SpawnRequest {
    std::string program{};                 ///< path of the executable
    std::vector<std::string> arguments{};  ///< without the program's own name
    std::vector<std::pair<std::string, std::string>>
        environment{};                 ///< added to this process's environment
    std::vector<int> inherited_fds{};  ///< keep their numbers in the child
    /// Put the child into a process group of its own, so that a Ctrl-C at the terminal doesn't
    /// reach it.
    bool own_process_group = false;
    /// The child is ended by SIGKILL when the thread that started it ends, until it says that it
    /// looks after that itself (outlive_parent()).
    bool ends_with_parent = false;
    /// Becomes the child's standard error, unless it is -1.
    int error_fd = -1;
};

/// How a process ended.
struct ExitStatus {
    bool by_signal = false;
    int code = 0;  ///< exit code, or the signal's number
};

/// A running or ended child. Leaving it neither ends nor reaps the process.
struct ChildProcess {
    pid_t pid = -1;
    Fd pidfd;  ///< readable once the process has ended
};

/// Starts the program with default signal handling, an empty signal mask and, unless asked
/// otherwise, standard input, output and error as here; all other descriptors are close-on-exec by
/// the house rule. error::ESystemError if it can't be started or executed.
[[nodiscard]] ChildProcess spawn(const SpawnRequest& request);

/// Reaps an ended child; waits for it if it still runs. error::ESystemError if it is no child of
/// ours.
ExitStatus wait_for_end(const ChildProcess& child);

/// In a child that was started with ends_with_parent: from now on it notices the end of its parent
/// by itself. Does nothing in other processes.
void outlive_parent();

/// A descriptor that is readable once process `pid` has ended; error::ESystemError if there is
/// none.
[[nodiscard]] Fd open_pidfd(pid_t pid);

}  // namespace platform
