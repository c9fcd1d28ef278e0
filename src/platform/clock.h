// platform::Clock: where time comes from. The system hands one down from the composition root, so
// that tests can hold and move time (tests/support/fake_clock.h).
#pragma once

#include <cstdint>

namespace platform {

/// A moment since 1970-01-01 00:00 UTC; 0 <= microseconds < 1,000,000.
struct WallTime {
    int64_t seconds = 0;
    int32_t microseconds = 0;
};

class Clock {
  public:
    virtual ~Clock() = default;

    /// The time of day in UTC. It can be set, so it may jump either way.
    [[nodiscard]] virtual WallTime wall() const = 0;
    /// Microseconds since some fixed moment; never goes back. For spans and deadlines.
    [[nodiscard]] virtual uint64_t monotonic_us() const = 0;
};

/// The clock of the machine.
class SystemClock final : public Clock {
  public:
    /// A clock that can't be read is reported on the error stream and gives 0.
    [[nodiscard]] WallTime wall() const override;
    [[nodiscard]] uint64_t monotonic_us() const override;
};

}  // namespace platform
