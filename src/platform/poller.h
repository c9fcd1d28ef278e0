// The wait for file descriptors: epoll, level triggered, made at the first descriptor.
//
// To be woken costs several times what another process needs for an answer. So a wait asks again
// and again for up to kPatience_us, letting other processes run in between, before it sleeps. When
// that was in vain the next waits sleep at once: one, then three, seven, ... up to kMaxSleeps,
// until an attempt succeeds. A dialog thus stays awake, and an idle process sleeps.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <sys/epoll.h>

#include "platform/clock.h"
#include "platform/fifo.h"

namespace platform {

class Poller {
  public:
    /// Starts to wait for `events` (POLLIN or POLLOUT) of `fd`; `tag` comes back from wait().
    /// error::ESystemError if the system refuses.
    void add(int fd, short events, void* tag);
    /// Stops it. A descriptor that is closed already is no error.
    void remove(int fd) noexcept;

    /// Waits until a descriptor is ready or in error, at most `timeout_us` (rounded up to
    /// milliseconds; negative: no limit). Gives the tags of up to kMaxReady ready ones, valid until
    /// the next call; empty after the time and after an interruption by a signal.
    /// error::ESystemError "WaitForMultipleEvents returned error"; without any descriptor
    /// "selector::pollImpl: SleepEx returned error".
    std::span<void* const> wait(int64_t timeout_us);

    static constexpr size_t kMaxReady = 32;

    /// How long a wait stays awake at most.
    static constexpr uint64_t kPatience_us = 60;
    /// How many waits at most sleep at once after one that stayed awake in vain.
    static constexpr unsigned kMaxSleeps = 63;

  private:
    int ask(int timeout_ms);
    int ask_patiently(int timeout_ms);

    Fd epoll_;
    size_t fds_ = 0;
    std::array<epoll_event, kMaxReady> events_;
    std::array<void*, kMaxReady> ready_{};
    SystemClock clock_;
    unsigned sleeps_left_ = 0;   ///< waits that still sleep at once
    unsigned sleeps_after_ = 0;  ///< as many had been ordered by the last attempt
};

}  // namespace platform
