// The check that the objects form a tree: parents exist and no object is its own ancestor.
#pragma once

#include <memory>

#include "mdb/verify.h"

namespace mdb {

/// Rules of the check:
///   P1 the parent that an object names is an object, or `outside` says that it need not be one
///   P2 following the parents from any object ends
/// Costs 28 bytes of memory for each object.
[[nodiscard]] std::unique_ptr<ObjectCheck> make_parent_check(
    std::function<bool(const NodeId&)> outside);

}  // namespace mdb
