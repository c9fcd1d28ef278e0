// queues::log_outlet: brings log lines to the main process, which owns the log files.
//
// Plug it into the log sink: logging::OutletScope scope([&](auto level, auto line) {
// outlet.write(level, line); }); A line is written from wherever something was worth telling, also
// from below the queue itself, where nothing may be sent. Such lines wait until the queue is free
// again; the order of lines stays. When the parent is gone, or a shutdown has closed the road to
// it, lines go to the error stream.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <string_view>

#include "log/log.h"
#include "queues/childqueue.h"

namespace queues {

class log_outlet {
  public:
    /// Takes the queue's hook for its lifetime; the queue must outlive it. `fallback` is where
    /// lines go that can't be sent.
    explicit log_outlet(childqueue& queue, std::FILE* fallback = stderr);
    /// Lines that still wait go to the fallback.
    ~log_outlet();
    log_outlet(const log_outlet&) = delete;
    log_outlet& operator=(const log_outlet&) = delete;

    /// Sends the line as "SYSTEM_LOG_REQUEST" under a fresh uid, or keeps it for later. Never
    /// throws.
    void write(logging::level_t level, std::string_view line);

    /// Sends what waits, if the queue is free.
    void flush();

    /// More lines than this do not wait: the newest are dropped, and a line says how many.
    static constexpr std::size_t kMaxKept = 1000;

  private:
    bool send(const std::string& line);
    void fall_back(std::string_view line);

    childqueue& queue_;
    std::FILE* fallback_;
    std::deque<std::string> kept_;
    std::uint64_t dropped_ = 0;
    bool flushing_ = false;
};

}  // namespace queues
