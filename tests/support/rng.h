// Repeatable random numbers for property tests. Print the seed with SCOPED_TRACE so that a failure
// can be run again.
#pragma once

#include <cstdint>
#include <random>

namespace support {

class Rng {
  public:
    explicit Rng(uint64_t seed) : engine_(seed) {}

    /// A number from 0 to bound - 1; bound must be above 0.
    uint64_t below(uint64_t bound) { return engine_() % bound; }
    uint64_t next() { return engine_(); }
    /// True in `percent` of a hundred cases.
    bool chance(unsigned percent) { return below(100) < percent; }

  private:
    std::mt19937_64 engine_;
};

}  // namespace support
