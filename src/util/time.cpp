#include "util/time.h"

#include <array>
#include <cmath>
#include <ctime>
#include <limits>
#include <ostream>

#include "error/exception.h"
#include "platform/clock.h"

namespace {

constexpr int32_t kMicrosecondsPerSecond = 1'000'000;

/// Sums of seconds wrap instead of overflowing: nothing depends on a moment beyond the range.
int32_t wrapped(int64_t seconds) {
    return static_cast<int32_t>(seconds);
}

}  // namespace

Time::Time(int32_t seconds, int32_t microseconds) {
    error::check(microseconds >= 0, "Cannot normalize negative microseconds");
    seconds_ = wrapped(int64_t{seconds} + microseconds / kMicrosecondsPerSecond);
    microseconds_ = microseconds % kMicrosecondsPerSecond;
}

Time Time::now(const platform::Clock& clock) {
    const platform::WallTime now = clock.wall();
    return {wrapped(now.seconds), now.microseconds};
}

Time& Time::operator+=(const Time& other) {
    int64_t seconds = int64_t{seconds_} + other.seconds_;
    int32_t microseconds = microseconds_ + other.microseconds_;
    if (microseconds >= kMicrosecondsPerSecond) {
        ++seconds;
        microseconds -= kMicrosecondsPerSecond;
    }
    error::check(microseconds < kMicrosecondsPerSecond, "Too big usec in +=");
    seconds_ = wrapped(seconds);
    microseconds_ = microseconds;
    return *this;
}

Time operator-(const Time& a, const Time& b) {
    int64_t seconds = int64_t{a.seconds_} - b.seconds_;
    int32_t microseconds = a.microseconds_ - b.microseconds_;
    if (microseconds < 0) {
        --seconds;
        microseconds += kMicrosecondsPerSecond;
    }
    error::check(microseconds >= 0, "Negative usec");
    return {wrapped(seconds), microseconds};
}

Time operator*(const Time& time, double factor) {
    const double product = time.as_double() * factor;
    const double whole = std::floor(product);
    if (!(whole >= std::numeric_limits<int32_t>::min()))
        return Time(std::numeric_limits<int32_t>::min());
    if (whole > std::numeric_limits<int32_t>::max())
        return Time(std::numeric_limits<int32_t>::max());
    return {static_cast<int32_t>(whole), static_cast<int32_t>((product - whole) * 1e6)};
}

std::string Time::to_string() const {
    if (seconds_ >= 0 || microseconds_ == 0)
        return fmt::format("{}.{:06}", seconds_, microseconds_);
    return fmt::format("-{}.{:06}", -(int64_t{seconds_} + 1),
                       kMicrosecondsPerSecond - microseconds_);
}

std::string Time::format(const char* pattern, zone_t zone) const {
    const std::time_t moment = seconds_;
    std::tm parts{};
    const std::tm* broken_down =
        zone == zone_t::utc ? ::gmtime_r(&moment, &parts) : ::localtime_r(&moment, &parts);
    if (broken_down == nullptr) return "invalid time";
    std::array<char, 1024> buffer;
    return {buffer.data(), std::strftime(buffer.data(), buffer.size(), pattern, &parts)};
}

std::ostream& operator<<(std::ostream& out, const Time& time) {
    return out << time.to_string();
}
