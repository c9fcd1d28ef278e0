// One sibling under supervision: its process, when it may be started, and what its end means. It
// decides nothing about other siblings; the family does (family.h).
//
//                 start()            came_up()
//     waiting ---------------> starting ------> up
//        ^                        |             |      request_stop()
//        | due()                  | ended()     |-----------------------> stopping
//     delayed <-------------------'-------------'  ended()                   |
//                                                                            | ended()
//     waiting, delayed --request_stop()--> stopped <-------------------------'
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "io/system_handle.h"
#include "main/config.h"
#include "main/error_lines.h"
#include "main/restart_policy.h"
#include "platform/process.h"

namespace mainprocess {

class SupervisedSibling {
  public:
    enum class state_t { waiting, starting, up, delayed, stopping, stopped };

    SupervisedSibling(SiblingConfig config, RestartLimits limits, PatienceLimits patience);

    [[nodiscard]] const SiblingConfig& config() const noexcept { return config_; }
    [[nodiscard]] state_t state() const noexcept { return state_; }
    /// True from the start of the process until its end was noted.
    [[nodiscard]] bool has_process() const noexcept { return end_.has_value(); }
    /// Its process id; only while has_process().
    [[nodiscard]] pid_t pid() const noexcept { return process_.pid; }
    /// Readable when the process has ended; only while has_process().
    [[nodiscard]] io::FdSelectable& end() { return *end_; }

    /// What the process writes to its error stream; null without a process, and once that stream
    /// was left.
    [[nodiscard]] ErrorLines* errors() { return errors_ ? &*errors_ : nullptr; }
    /// No longer looks at the error stream. Take it out of its selector before.
    void leave_errors() { errors_.reset(); }

    /// Starts the program, with an error stream of its own. Throws error::ESystemError when that
    /// fails; the state is then delayed, as after a crash.
    void start(platform::SpawnRequest request, int64_t now_ms);
    /// It said that it is ready.
    void came_up(int64_t now_ms);
    /// Its process ended; reaps it. The objects of end() and errors() are gone afterwards, so take
    /// them out of their selector before. Gives the words for the log: "exit code 1", "signal 9
    /// (Killed)".
    [[nodiscard]] std::string ended(int64_t now_ms);
    /// No more starts. A running process is asked to end by the caller, who says here how long
    /// that may take; a later call gives it another deadline.
    void request_stop(int64_t give_up_at_ms);
    /// Ends the process by force, if there is one.
    void kill_now();

    /// What to do about it when it has held something up for `held_up_ms`.
    [[nodiscard]] Patience::verdict_t judge(int64_t held_up_ms) {
        return patience_.look(held_up_ms);
    }
    /// For how long it has been starting, when that is due for a warning.
    [[nodiscard]] std::optional<int64_t> slow_start_ms(int64_t now_ms);

    /// When this sibling wants to be looked at again: the start after a delay, the next warning of
    /// a slow start, or the end of the patience with its stop. Milliseconds of the monotonic clock.
    [[nodiscard]] std::optional<int64_t> next_deadline_ms() const;
    /// Whether a delayed start is due; then the state is waiting again.
    [[nodiscard]] bool due(int64_t now_ms);

  private:
    void note_crash(int64_t now_ms, int64_t uptime_ms);

    SiblingConfig config_;
    RestartPolicy policy_;
    PatienceLimits limits_;
    Patience patience_;
    state_t state_ = state_t::waiting;
    platform::ChildProcess process_;
    std::optional<io::FdSelectable> end_;
    std::optional<ErrorLines> errors_;
    int64_t started_ms_ = 0;
    int64_t up_since_ms_ = 0;
    int64_t deadline_ms_ = 0;  ///< what it is for is told by the state
};

}  // namespace mainprocess
