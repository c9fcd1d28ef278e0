// A clock that stands still until the test moves it.
#pragma once

#include "platform/clock.h"

namespace support {

class FakeClock final : public platform::Clock {
  public:
    explicit FakeClock(int64_t wall_seconds = 1'000'000'000) : wall_us_(wall_seconds * 1'000'000) {}

    [[nodiscard]] platform::WallTime wall() const override {
        int64_t seconds = wall_us_ / 1'000'000;
        int64_t rest = wall_us_ % 1'000'000;
        if (rest < 0) {
            rest += 1'000'000;
            --seconds;
        }
        return {seconds, static_cast<int32_t>(rest)};
    }
    [[nodiscard]] uint64_t monotonic_us() const override { return monotonic_us_; }

    /// Lets time pass on both faces.
    void advance_us(uint64_t us) {
        wall_us_ += static_cast<int64_t>(us);
        monotonic_us_ += us;
    }
    void advance_s(uint64_t seconds) { advance_us(seconds * 1'000'000); }
    /// Sets the time of day alone, as an operator may.
    void set_wall(int64_t seconds, int32_t microseconds = 0) {
        wall_us_ = seconds * 1'000'000 + microseconds;
    }

  private:
    int64_t wall_us_;
    uint64_t monotonic_us_ = 1'000'000;
};

}  // namespace support
