#include "log/detail/tarmik_sink.h"

#include <cstdio>

#include "error/exception.h"

namespace stdquery {

namespace {

constexpr std::size_t kIndentPerBlock = 2;

/// Marks the time during which the outlet runs, whichever way it ends.
class Busy {
  public:
    explicit Busy(bool& flag) : flag_(flag) { flag_ = true; }
    ~Busy() { flag_ = false; }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

  private:
    bool& flag_;
};

}  // namespace

TarmikSink::TarmikSink() : formatter_("[%n] [%l] %v", spdlog::pattern_time_type::local, "") {}

void TarmikSink::log(const spdlog::details::log_msg& message) {
    const std::lock_guard lock(mutex_);
    spdlog::memory_buf_t text;
    formatter_.format(message, text);
    std::string line(nesting_ * kIndentPerBlock, ' ');
    line.append(text.data(), text.size());
    if (!hand_to_outlet(static_cast<logging::level_t>(message.level), line))
        std::fprintf(stderr, "Log: %s\n", line.c_str());
}

bool TarmikSink::hand_to_outlet(logging::level_t level, const std::string& line) {
    if (!outlet_ || in_outlet_) return false;
    const Busy busy(in_outlet_);
    try {
        outlet_(level, line);
        return true;
    } catch (const error::Exception&) {
        // The peer of the outlet may be gone; the line must not be lost with it, and whoever logged
        // can't help it.
        return false;
    }
}

void TarmikSink::flush() {
    std::fflush(stderr);
}

logging::Outlet TarmikSink::exchange_outlet(logging::Outlet outlet) {
    const std::lock_guard lock(mutex_);
    outlet_.swap(outlet);
    return outlet;
}

void TarmikSink::enter_block() {
    const std::lock_guard lock(mutex_);
    ++nesting_;
}

void TarmikSink::leave_block() {
    const std::lock_guard lock(mutex_);
    --nesting_;
}

}  // namespace stdquery
