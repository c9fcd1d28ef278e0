// CycleCheck: tells when a walk from link to link comes round to where it has been, for chains in
// storage whose length nothing bounds and whose links may be damaged.
//
// R. P. Brent, "An improved Monte Carlo factorization algorithm", BIT 20 (1980) 176-184, section 2:
// the walk is compared with one place that it has passed, and this place moves on at every doubling
// of the steps. So a step costs a comparison, nothing is remembered of the way, and a cycle is told
// of before the walk has gone three times over the way into it and around it.
#pragma once

#include <cstdint>
#include <utility>

namespace util {

template <class Place>
class CycleCheck {
  public:
    explicit CycleCheck(Place start) : passed_(std::move(start)) {}

    /// To be called with each place after the start: whether the walk goes in a circle. `at` lies
    /// on it then.
    [[nodiscard]] bool closes_at(const Place& at) {
        if (at == passed_) return true;
        if (--left_ == 0) {
            passed_ = at;
            left_ = stretch_ *= 2;
        }
        return false;
    }

  private:
    Place passed_;
    uint64_t stretch_ = 1;
    uint64_t left_ = 1;
};

}  // namespace util
