// The full answer of one object to a pattern: divided between what an index knows and what must be
// walked.
#pragma once

#include "tql/pattern.h"
#include "tqlengine/object_handler.h"
#include "tqlengine/result_node.h"
#include "tqlengine/select_statistics.h"

namespace tqlengine::detail {

/// What `pattern`, started at `handler`, gives; empty when nothing. Settled. The pattern must have
/// been checked. Throws errors::tql and errors::db_anomaly.
ResultNodePtr evaluateWithLeads(TqlObjectHandler& handler, const tql::pattern_t& pattern,
                                const SelectLimits& limits, SelectStatistics& statistics,
                                ResultNodePool& nodes);

/// Adds the parent to the node of a root, when the pattern wants it and the class gave none: a root
/// is the one object of a result whose parent the tree itself doesn't show.
void add_parent_if_wanted(ResultNode& root, TqlObjectHandler& handler,
                          const tql::pattern_t& pattern);

}  // namespace tqlengine::detail
