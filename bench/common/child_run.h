// Work in a process of its own: each subject starts from a fresh heap, its resident memory is its
// own, and it can be killed without harm to the others.
#pragma once

#include <functional>
#include <map>
#include <string>

namespace bench {

/// What one subject measured in one round, by the key of the figure.
using Figures = std::map<std::string, double>;

/// Runs `work` in a forked child and returns its figures. Throws std::runtime_error when the child
/// failed; its own text is on the error stream by then.
[[nodiscard]] Figures run_in_child(const std::function<Figures()>& work);

/// Runs `work` in a forked child that kills itself with SIGKILL when `work` has returned, with no
/// destructor run. Throws std::runtime_error when it ended in any other way.
void run_and_kill(const std::function<void()>& work);

/// Resident memory of this process in bytes.
[[nodiscard]] double resident_bytes();

/// Seconds that `work` takes by the monotonic clock.
[[nodiscard]] double seconds_of(const std::function<void()>& work);

}  // namespace bench
