// How long the main process waits before it starts a crashed sibling again: a short delay at first,
// doubled with every crash in a row up to a limit. A sibling that stayed up long enough starts from
// the short delay again.
#pragma once

#include <algorithm>
#include <cstdint>

namespace mainprocess {

struct RestartLimits {
    int64_t first_delay_ms = 100;
    int64_t longest_delay_ms = 30'000;
    int64_t stable_after_ms = 10'000;
};

class RestartPolicy {
  public:
    explicit RestartPolicy(RestartLimits limits) : limits_(limits) {}

    /// Notes a crash of a sibling that had been up for `uptime_ms` (0 when it never came up) and
    /// gives the delay in milliseconds until it is to be started again.
    [[nodiscard]] int64_t delay_after_crash_ms(int64_t uptime_ms) {
        if (uptime_ms >= limits_.stable_after_ms) crashes_in_row_ = 0;
        const int doublings = std::min(crashes_in_row_, 20);
        ++crashes_in_row_;
        return std::min(limits_.longest_delay_ms, limits_.first_delay_ms << doublings);
    }

  private:
    RestartLimits limits_;
    int crashes_in_row_ = 0;
};

}  // namespace mainprocess
