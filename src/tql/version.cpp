#include "tql/version.h"

#include <charconv>
#include <fmt/format.h>
#include <vector>

namespace tql {

namespace {

// The sign of a difference that may wrap around.
int wrapped_order(uint64_t a, uint64_t b) noexcept {
    const auto difference = static_cast<int64_t>(a - b);
    return difference < 0 ? -1 : difference > 0 ? 1 : 0;
}

}  // namespace

std::string version_t::to_string() const {
    return fmt::format("{}.1.{}", ring_sequence, counter);
}

std::optional<version_t> version_t::parse(std::string_view text) {
    std::vector<uint64_t> numbers;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (true) {
        uint64_t number = 0;
        const auto [stop, failure] = std::from_chars(at, end, number);
        if (failure != std::errc()) return std::nullopt;
        numbers.push_back(number);
        at = stop;
        if (at == end) break;
        if (*at++ != '.' || numbers.size() == 3) return std::nullopt;
    }
    if (numbers.size() == 2) return version_t{numbers[0], numbers[1]};
    if (numbers.size() != 3 || numbers[1] != 1) return std::nullopt;
    return version_t{numbers[0], numbers[2]};
}

int compare_versions(const version_t& a, const version_t& b) noexcept {
    const int by_ring = wrapped_order(a.ring_sequence, b.ring_sequence);
    return by_ring != 0 ? by_ring : wrapped_order(a.counter, b.counter);
}

}  // namespace tql
