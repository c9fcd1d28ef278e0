// Reading a fuzzer's bytes as numbers. Past the end everything is zero, so that every input is a
// whole description and a shorter one is as good as a longer.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

namespace fuzz {

class Input {
  public:
    explicit Input(std::span<const uint8_t> bytes) : rest_(bytes) {}

    [[nodiscard]] bool empty() const { return rest_.empty(); }
    [[nodiscard]] uint8_t byte() {
        if (rest_.empty()) return 0;
        const uint8_t first = rest_.front();
        rest_ = rest_.subspan(1);
        return first;
    }
    /// Two, three or four bytes, the most significant one first.
    [[nodiscard]] uint32_t number(int width) {
        uint32_t value = 0;
        for (int i = 0; i < width; ++i) value = value << 8 | byte();
        return value;
    }
    /// Up to `length` bytes; fewer at the end.
    [[nodiscard]] std::span<const uint8_t> bytes(size_t length) {
        const auto taken = rest_.first(std::min(length, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    [[nodiscard]] std::span<const uint8_t> rest() const { return rest_; }

  private:
    std::span<const uint8_t> rest_;
};

}  // namespace fuzz
