// The way from the top of the tree down to one object: what a change is looked at along.
#pragma once

#include <vector>

#include "tql/id.h"
#include "tqlengine/object_handler.h"

namespace tqlengine::detail {

struct ChainLink {
    HandlerRef object;
    tql::id_t id;  ///< of `object`; asked for once
};

/// The top first; the last link is the object itself. Holds a reference to each.
using Chain = std::vector<ChainLink>;

/// Costs a step for each object above. When a parent can't be loaded or the way leads in a ring,
/// `chain` holds the part below and the failure (errors::tql, errors::stdanomaly) is thrown on.
void build_chain(Chain& chain, HandlerRef object);

}  // namespace tqlengine::detail
