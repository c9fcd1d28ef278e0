// What a pattern from outside must keep to, before anything walks it and while it is walked.
#pragma once

#include "tql/pattern.h"
#include "tqlengine/select_statistics.h"

namespace tqlengine::detail {

/// Throws errors::tql for a pattern that is nested too deeply or has too many steps (code 12) and
/// for a condition without a value (code 9).
void check_pattern(const tql::pattern_t& pattern, const SelectLimits& limits);

/// Throws errors::tql code 12: the pattern has had its share of objects to try.
[[noreturn]] void fail_considered(const SelectLimits& limits);

/// Counts one more object tried against a step.
inline void count_considered(const SelectLimits& limits, SelectStatistics& statistics) {
    if (++statistics.considered > limits.considered) [[unlikely]]
        fail_considered(limits);
}

}  // namespace tqlengine::detail
