// Verifies the mark lists: that each runs through the tree in depth-first order with pointers that
// agree, and that every object that belongs into one is in it (detail/mark_list_check.h). Reads and
// never mends.
#pragma once

#include <memory>

#include "dbcache/store.h"
#include "mdb/verify.h"

namespace dbcache {

/// Verifies both lists, then goes over the active-parent index object by object: who stands there
/// must be in the lists that it belongs to, and all above it too. Throws error::EFatal with the
/// first fault. Costs memory for the id of each object in a list.
void verify_mark_lists(const Store::Parts& parts);

/// The same for all objects and with all faults, as part of the verification of a database: rule K1
/// is the list of what is active, K2 that of what inherits. A list that is missing is one fault,
/// and none in a database of a format that has no lists yet: the next start builds it. Costs 48
/// bytes of memory for each object and 32 for each record of a mark.
[[nodiscard]] std::unique_ptr<mdb::ObjectCheck> make_mark_check();

}  // namespace dbcache
