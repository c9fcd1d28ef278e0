// platform::Regex: a compiled POSIX extended regular expression.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "error/exception.h"

namespace platform {

/// A text that isn't a regular expression; carries the system's message, at most 79 characters.
class ERegex : public error::Exception {
  public:
    using Exception::Exception;
};

class Regex {
  public:
    /// A part of a searched text, in bytes. A group that took no part in the match has `matched`
    /// false.
    struct Range {
        bool matched = false;
        std::size_t start = 0;
        std::size_t end = 0;
    };

    /// What a pattern may come to with its repetitions written out, and how deep it may nest. The
    /// system compiles repetitions by copying and groups by recursion, so that without a limit a
    /// short pattern takes all memory or the whole stack.
    static constexpr std::size_t kMostPieces = 10'000;
    static constexpr std::size_t kDeepestGroup = 200;

    /// Throws ERegex for a malformed pattern and for one beyond these limits, "Regular expression
    /// too big".
    explicit Regex(const std::string& pattern);
    ~Regex();
    Regex(Regex&&) noexcept;
    Regex& operator=(Regex&&) noexcept;

    /// Whether `text`, which may hold zero bytes, has a match anywhere.
    [[nodiscard]] bool matches(std::string_view text) const;
    /// The leftmost match: its range, then one range per group. None without a match.
    [[nodiscard]] std::optional<std::vector<Range>> search(std::string_view text) const;

  private:
    struct Compiled;
    std::unique_ptr<Compiled> compiled_;
};

}  // namespace platform
