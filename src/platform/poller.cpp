#include "platform/poller.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>

#include "error/exception.h"

namespace platform {

void Poller::add(int fd, short events, void* tag) {
    if (!epoll_) {
        epoll_ = Fd(::epoll_create1(EPOLL_CLOEXEC));
        if (!epoll_) throw error::ESystemError("WaitForMultipleEvents returned error", errno);
    }
    epoll_event event{};
    event.events = (events & POLLIN ? EPOLLIN : 0u) | (events & POLLOUT ? EPOLLOUT : 0u);
    event.data.ptr = tag;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        throw error::ESystemError("WaitForMultipleEvents returned error", errno);
    ++fds_;
}

void Poller::remove(int fd) noexcept {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    --fds_;
}

std::span<void* const> Poller::wait(int64_t timeout_us) {
    int timeout_ms = -1;
    if (timeout_us >= 0)
        timeout_ms = static_cast<int>(std::min<int64_t>((timeout_us + 999) / 1000, INT_MAX));
    if (fds_ == 0) {
        if (::poll(nullptr, 0, timeout_ms) < 0 && errno != EINTR)
            throw error::ESystemError("selector::pollImpl: SleepEx returned error", errno);
        return {};
    }
    const int count = timeout_ms == 0 ? ask(0) : ask_patiently(timeout_ms);
    if (count < 0) {
        if (errno == EINTR) return {};
        throw error::ESystemError("WaitForMultipleEvents returned error", errno);
    }
    const auto ready = static_cast<size_t>(count);
    for (size_t i = 0; i < ready; ++i) ready_[i] = events_[i].data.ptr;
    return {ready_.data(), ready};
}

int Poller::ask(int timeout_ms) {
    return ::epoll_wait(epoll_.get(), events_.data(), kMaxReady, timeout_ms);
}

int Poller::ask_patiently(int timeout_ms) {
    if (sleeps_left_ > 0) {
        --sleeps_left_;
        return ask(timeout_ms);
    }
    const uint64_t start_us = clock_.monotonic_us();
    do {
        if (const int count = ask(0); count != 0) {
            sleeps_after_ = 0;
            return count;
        }
        ::sched_yield();
    } while (clock_.monotonic_us() - start_us < kPatience_us);
    sleeps_left_ = sleeps_after_ = std::min(2 * sleeps_after_ + 1, kMaxSleeps);
    return ask(timeout_ms);
}

}  // namespace platform
