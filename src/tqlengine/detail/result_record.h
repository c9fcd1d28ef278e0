// From the result tree in memory to the record that travels.
#pragma once

#include "tql/result.h"
#include "tqlengine/result_node.h"

namespace tqlengine::detail {

/// The record of a settled tree of any depth, children in the order of their keys. Uses the tree up
/// and adds its nodes to `count`.
tql::result_t to_record(ResultNodePtr node, uint64_t& count);

}  // namespace tqlengine::detail
