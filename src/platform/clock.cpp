#include "platform/clock.h"

#include <cstdio>
#include <ctime>

namespace platform {

namespace {

constexpr long kNanosecondsPerMicrosecond = 1000;

std::timespec read_clock(clockid_t clock) {
    std::timespec now{};
    if (::clock_gettime(clock, &now) != 0) {
        std::fputs(
            "(TIME) Error getting system time \n"
            "(TIME) This may cause inaccurate measurements \n",
            stderr);
    }
    return now;
}

}  // namespace

WallTime SystemClock::wall() const {
    const std::timespec now = read_clock(CLOCK_REALTIME);
    return {now.tv_sec, static_cast<int32_t>(now.tv_nsec / kNanosecondsPerMicrosecond)};
}

uint64_t SystemClock::monotonic_us() const {
    const std::timespec now = read_clock(CLOCK_MONOTONIC);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<uint64_t>(now.tv_nsec / kNanosecondsPerMicrosecond);
}

}  // namespace platform
