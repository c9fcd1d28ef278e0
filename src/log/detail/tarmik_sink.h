// stdquery::TarmikSink: the one sink of all loggers. It forms the line and hands it to the outlet,
// or to the error stream when there is none, when the outlet throws, or when the line comes out of
// the outlet itself.
#pragma once

#include <mutex>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/sink.h>

#include "log/log.h"

namespace stdquery {

class TarmikSink final : public spdlog::sinks::sink {
  public:
    TarmikSink();

    void log(const spdlog::details::log_msg& message) override;
    void flush() override;
    /// The pattern is fixed: the registry's own settings don't reach it.
    void set_pattern(const std::string&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

    /// Returns the outlet that was plugged in before.
    logging::Outlet exchange_outlet(logging::Outlet outlet);
    void enter_block();
    void leave_block();

  private:
    [[nodiscard]] bool hand_to_outlet(logging::level_t level, const std::string& line);

    std::recursive_mutex mutex_;  // an outlet may log
    spdlog::pattern_formatter formatter_;
    logging::Outlet outlet_;
    bool in_outlet_ = false;
    std::size_t nesting_ = 0;
};

}  // namespace stdquery
