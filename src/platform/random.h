// Random bytes. platform::Random is the process's pseudo-random source: good for spreading ids, no
// good for secrets. system_entropy() is for secrets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

namespace platform {

class Clock;

/// The C library's generator with a state of its own. One seed gives one sequence.
class Random {
  public:
    explicit Random(uint32_t seed);
    /// Seeded with the process id XOR the clock's seconds.
    explicit Random(const Clock& clock);
    ~Random();
    Random(const Random&) = delete;
    Random& operator=(const Random&) = delete;

    /// Fills `buffer` in 16-bit draws, one for each two bytes, low byte first; an odd last byte is
    /// the low byte of one further draw.
    void random_fill(std::span<uint8_t> buffer);
    /// Four bytes of random_fill as a number.
    [[nodiscard]] uint32_t next_u32();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Fills `buffer` from the operating system's source. Throws error::ESystemError when there is
/// none. May wait in the first moments after the machine started.
void system_entropy(std::span<uint8_t> buffer);

}  // namespace platform
