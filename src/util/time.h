// Time: a moment or a span in seconds and microseconds, as events and stored objects carry it. It
// counts UTC and knows no calendar beyond format(). Where the present time comes from is
// platform::Clock's matter.
#pragma once

#include <cstdint>
#include <fmt/format.h>
#include <iosfwd>
#include <string>

namespace platform {
class Clock;
}

/// Always 0 <= microseconds < 1,000,000, also before 1970: -1.5 s is seconds -2, microseconds
/// 500000. A result beyond the range of 32-bit seconds keeps the low 32 bits.
class Time {
  public:
    /// Never: a timer with this moment does not fire.
    static constexpr int32_t kFarFuture_s = 2147483647;

    constexpr Time() = default;
    constexpr explicit Time(int32_t seconds) : seconds_(seconds) {}
    /// Surplus microseconds move to the seconds. Negative microseconds are a fatal assertion.
    Time(int32_t seconds, int32_t microseconds);

    /// The present time of `clock`.
    [[nodiscard]] static Time now(const platform::Clock& clock);
    /// The moment that never comes.
    [[nodiscard]] static constexpr Time far_future() { return Time(kFarFuture_s); }

    [[nodiscard]] constexpr int32_t seconds() const noexcept { return seconds_; }
    [[nodiscard]] constexpr int32_t microseconds() const noexcept { return microseconds_; }
    [[nodiscard]] constexpr double as_double() const noexcept {
        return microseconds_ / 1e6 + seconds_;
    }

    Time& operator+=(const Time& other);
    friend Time operator+(Time a, const Time& b) { return a += b; }
    friend Time operator-(const Time& a, const Time& b);
    /// Scales by `factor`; the microseconds are truncated. A result outside the range of seconds is
    /// cut to its ends.
    friend Time operator*(const Time& time, double factor);

    /// Order is that of as_double().
    friend constexpr bool operator<(const Time& a, const Time& b) {
        return a.as_double() < b.as_double();
    }
    friend constexpr bool operator<=(const Time& a, const Time& b) {
        return a.as_double() <= b.as_double();
    }
    friend constexpr bool operator>(const Time& a, const Time& b) {
        return a.as_double() > b.as_double();
    }
    friend constexpr bool operator>=(const Time& a, const Time& b) {
        return a.as_double() >= b.as_double();
    }
    friend constexpr bool operator==(const Time&, const Time&) = default;

    /// Seconds with exactly six digits of fraction: "12.000005", "-1.500000".
    [[nodiscard]] std::string to_string() const;

    enum class zone_t { local, utc };
    /// The seconds by a strftime pattern. "invalid time" when they can't be broken down; empty when
    /// the result would be empty or does not fit 1024 bytes.
    [[nodiscard]] std::string format(const char* pattern, zone_t zone) const;

  private:
    int32_t seconds_ = 0;
    int32_t microseconds_ = 0;
};

/// Prints to_string().
std::ostream& operator<<(std::ostream& out, const Time& time);

template <>
struct fmt::formatter<Time> : fmt::formatter<std::string_view> {
    template <class Context>
    auto format(const Time& time, Context& context) const {
        return fmt::formatter<std::string_view>::format(time.to_string(), context);
    }
};
