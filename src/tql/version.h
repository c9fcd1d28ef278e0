// The version of an object: a ring sequence that grows with each start of the server, and a
// counter.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tql {

struct version_t {
    uint64_t ring_sequence = 0;
    uint64_t counter = 0;

    static constexpr std::string_view record = "version";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("ring_sequence", self.ring_sequence);
        visit("counter", self.counter);
    }

    /// "R.1.C", the print form of a version value.
    [[nodiscard]] std::string to_string() const;
    /// Reads "R.C", the form that people use, or "R.1.C"; none for anything else.
    [[nodiscard]] static std::optional<version_t> parse(std::string_view text);

    friend bool operator==(const version_t&, const version_t&) = default;
};

/// -1, 0 or 1 in the wrap-around order: the signed 64-bit difference of the ring sequences decides,
/// then that of the counters. Not transitive over the whole range, so not for sorting.
[[nodiscard]] int compare_versions(const version_t& a, const version_t& b) noexcept;

}  // namespace tql
