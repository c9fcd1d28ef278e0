// How long the main process puts up with a sibling that holds something up: a word in the log at
// first, and in the end the sibling is ended by force and started again as after a crash.
//
// A sibling that takes long to start is never ended: the replay of a large database may take its
// time.
#pragma once

#include <cstdint>

namespace mainprocess {

struct PatienceLimits {
    /// Without a sign of readiness; each further warning comes after twice the time.
    int64_t start_warning_ms = 10'000;
    /// In the middle of a record, with its channel full of what nobody reads, or with a question
    /// that it hasn't answered.
    int64_t stuck_warning_ms = 10'000;
    int64_t stuck_limit_ms = 60'000;
};

/// Patience with one process that is up.
class Patience {
  public:
    enum class verdict_t { wait, warn, give_up };

    explicit Patience(PatienceLimits limits) : limits_(limits) {}

    /// What to do when it has held something up for `held_up_ms`, 0 for not at all. Warns once each
    /// time.
    [[nodiscard]] verdict_t look(int64_t held_up_ms) {
        if (held_up_ms < limits_.stuck_warning_ms) warned_ = false;
        if (held_up_ms >= limits_.stuck_limit_ms) return verdict_t::give_up;
        if (held_up_ms < limits_.stuck_warning_ms || warned_) return verdict_t::wait;
        warned_ = true;
        return verdict_t::warn;
    }

  private:
    PatienceLimits limits_;
    bool warned_ = false;
};

}  // namespace mainprocess
