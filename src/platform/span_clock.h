// platform::SpanClock: the monotonic time of another clock on both faces. For timers that measure
// spans: setting the time of day neither delays nor hastens them. Its wall() is no time of day.
#pragma once

#include "platform/clock.h"

namespace platform {

class SpanClock final : public Clock {
  public:
    /// `clock` must outlive this object.
    explicit SpanClock(const Clock& clock) : clock_(clock) {}

    [[nodiscard]] WallTime wall() const override {
        const uint64_t now_us = clock_.monotonic_us();
        return {static_cast<int64_t>(now_us / 1'000'000), static_cast<int32_t>(now_us % 1'000'000)};
    }
    [[nodiscard]] uint64_t monotonic_us() const override { return clock_.monotonic_us(); }

  private:
    const Clock& clock_;
};

}  // namespace platform
