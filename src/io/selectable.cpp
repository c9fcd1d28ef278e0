#include "io/selectable.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>

#include "error/exception.h"
#include "io/selector.h"
#include "io/system_handle.h"
#include "io/timer.h"

namespace io {

bool Selectable::deadline(int64_t&) const {
    return false;
}

void Selectable::addedTo(SelectorBase& selector) {
    selectors_.push_back(&selector);
    if (isReady()) selector.noteReady(*this);
}

void Selectable::removedFrom(SelectorBase& selector) {
    const auto found = std::find(selectors_.begin(), selectors_.end(), &selector);
    error::check(found != selectors_.end(), "Unable to remove selector in: {}", nameText());
    selectors_.erase(found);
}

std::string Selectable::nameText() const {
    std::string text;
    name(text);
    return text;
}

FdSelectable::FdSelectable(int fd, std::string name, direction_t direction)
    : fd_(fd), name_(std::move(name)), direction_(direction) {}

short FdSelectable::interest() const {
    return direction_ == direction_t::reading ? POLLIN : POLLOUT;
}

bool FdSelectable::isReady() const {
    pollfd descriptor{fd_, interest(), 0};
    int count = 0;
    do {
        count = ::poll(&descriptor, 1, 0);
    } while (count < 0 && errno == EINTR);
    return count > 0;
}

bool Timer::isReady() const {
    int64_t left_us = 0;
    return deadline(left_us) && left_us <= 0;
}

bool Timer::deadline(int64_t& left_us) const {
    if (expiry_.seconds() == Time::kFarFuture_s) {
        left_us = kNoDeadline_us;
        return true;
    }
    const platform::WallTime now = clock_.wall();
    left_us =
        (expiry_.seconds() - now.seconds) * 1'000'000 + (expiry_.microseconds() - now.microseconds);
    return true;
}

}  // namespace io
