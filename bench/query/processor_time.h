// Processor time of this thread: what a figure says on a machine that others use too.
#pragma once

#include <ctime>

namespace bench {

[[nodiscard]] inline double processor_seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

template <class Work>
[[nodiscard]] double processor_seconds_of(Work&& work) {
    const double before = processor_seconds();
    work();
    return processor_seconds() - before;
}

}  // namespace bench
