// Builds the mark lists (which objects are active, which inherit) from what is stored, for a
// database that has none yet or has lost one. Keeping a list while objects change is not done here.
//
// The record of the root stands for the whole list: it goes first and comes back last. So a list
// whose building was cut off at any moment is missing, not broken, and is built anew.
#pragma once

#include <cstdint>

#include "dbcache/stored_tree.h"

namespace dbcache {

/// A mark list whose objects know what is before them and where their stretches end, not yet what
/// comes after them. The root's record is kept here until link_mark_list() stores it.
struct UnlinkedMarkList {
    /// The list's last object; null when nothing is marked, and then there is no list.
    NodeId last;
    mdb::MarkLinks root;
};

/// Walks the tree depth first from the root and gives each object that is marked, or has a marked
/// one below it, its record of `mark`, prop::activeMark or prop::inheritsMark. Records of an
/// earlier list that are met on objects without a place in the new one are taken out. Each object
/// is a transaction of its own, asynchronous. Costs a read of each object up to those whose
/// nodetype has nothing to do with the mark, one write of each object in the list, and memory for
/// the children of the objects on one way down. Throws error::EFatal for another mark,
/// mdb::error_nullprop for an object without id or nodetype or a check without `active`,
/// mdb::error_need_repair when the root is its own ancestor.
[[nodiscard]] UnlinkedMarkList rebuild_mark_list(StoredTree& tree, uint32_t mark);

/// Goes through the list from its end and tells each object what comes after it; at last stores the
/// root's record. One more write for each object in the list.
void link_mark_list(StoredTree& tree, uint32_t mark, const UnlinkedMarkList& list);

/// Both.
void build_mark_list(StoredTree& tree, uint32_t mark);

/// Builds, of the two lists, those that the root has no record of.
void recreate_missing_mark_lists(StoredTree& tree);

}  // namespace dbcache
