// io::Timer: a selectable that is ready once a moment has come. It stays ready until a later expiry
// is set.
#pragma once

#include "io/selectable.h"
#include "platform/clock.h"
#include "util/time.h"

namespace io {

class Timer : public Selectable {
  public:
    /// A timer that never fires. `clock` must outlive it.
    explicit Timer(const platform::Clock& clock) : clock_(clock) {}

    /// Time::far_future() switches the timer off. Takes effect at the next select.
    void set_expiry(const Time& expiry) { expiry_ = expiry; }
    [[nodiscard]] const Time& expiry() const { return expiry_; }

    void name(std::string& out) const override { out += "Timer"; }
    [[nodiscard]] bool isReady() const override;
    [[nodiscard]] bool deadline(int64_t& left_us) const override;

  private:
    const platform::Clock& clock_;
    Time expiry_ = Time::far_future();
};

}  // namespace io
