// The wait for file descriptors: epoll, level triggered, made at the first descriptor.
#pragma once

#include <array>
#include <cstdint>
#include <span>

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

  private:
    Fd epoll_;
    size_t fds_ = 0;
    std::array<void*, kMaxReady> ready_{};
};

}  // namespace platform
