// Pieces of command lines: sizes as people write them, and the lines of the shell.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

/// A number of bytes: decimal digits, and K, M or G for 2^10, 2^20, 2^30. None for anything else
/// and beyond 64 bits.
[[nodiscard]] std::optional<uint64_t> parse_size(std::string_view text);

/// The words of a line of the shell. Blanks part words; quotation marks of both sorts hold blanks,
/// and a backslash outside of single ones takes the next sign as it is. The pattern of "select" is
/// one word to the end of the line and needs no quotation marks around it. Throws CommandError with
/// kUsage for a quotation mark without end.
[[nodiscard]] std::vector<std::string> split_words(std::string_view line);

/// What could stand in place of the word before the cursor.
struct Completion {
    size_t word_begin = 0;                ///< in the line
    std::vector<std::string> candidates;  ///< sorted
};

/// Completes the end of `line`: the first word to a command, the others to class names, property
/// names, or properties only inside of brackets and braces. `commands` are sorted.
[[nodiscard]] Completion complete(std::string_view line, const std::vector<std::string>& commands);

/// What all candidates begin with.
[[nodiscard]] std::string common_prefix(const std::vector<std::string>& candidates);

}  // namespace cli
