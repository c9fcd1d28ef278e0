// What a pattern from outside must keep to before anything walks it.
#pragma once

#include "tql/pattern.h"
#include "tqlengine/select_statistics.h"

namespace tqlengine::detail {

/// Throws errors::tql for a pattern that is nested too deeply or has too many steps (code 12) and
/// for a condition without a value (code 9).
void check_pattern(const tql::pattern_t& pattern, const SelectLimits& limits);

}  // namespace tqlengine::detail
