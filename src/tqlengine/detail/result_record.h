// From the result tree in memory to the record that travels.
#pragma once

#include "tql/result.h"
#include "tqlengine/result_node.h"

namespace tqlengine::detail {

/// The record of a settled tree, children in the order of their keys. Uses the tree up and adds its
/// nodes to `count`. Throws errors::tql code 12 for a tree of more than `depth_limit` levels.
tql::result_t to_record(ResultNodePtr node, size_t depth_limit, uint64_t& count);

}  // namespace tqlengine::detail
