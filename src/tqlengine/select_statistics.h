// What a select may cost, and what one did.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tql/pattern.h"

namespace tqlengine {

/// What one select cost.
struct SelectStatistics {
    uint64_t considered = 0;      ///< objects tried against a step of the pattern
    uint64_t included = 0;        ///< objects that matched
    uint64_t doublets = 0;        ///< merges of two nodes of one object
    uint64_t object_matches = 0;  ///< tests of an object against class, template flag, conditions
    uint64_t lengthy = 0;         ///< those tests that had to look at properties
};

/// Bounds that keep a request, however it was meant, from holding up the server.
struct SelectLimits {
    /// Steps below one another in a pattern; looking for index answers recurses over it.
    size_t pattern_depth = tql::kMaxPatternDepth;
    /// Steps of a pattern in all.
    size_t pattern_steps = 20'000;
    /// Tries of an object against a step. Recursive steps below recursive steps multiply what they
    /// try, so a pattern of a few hundred bytes could otherwise keep the server busy for years.
    uint64_t considered = 50'000'000;
};

}  // namespace tqlengine
