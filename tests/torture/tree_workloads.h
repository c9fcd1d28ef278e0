// Workloads over trees of three levels. Such a tree has some eighty leaves, most of them with a
// single entry, so that a store with it is still quickly opened and verified.
#pragma once

namespace torture {

class Script;

/// A root that names as many leaves as it can, the last one of them full: in index 0, and in the
/// MasterId index, whose tree isn't unique.
void tree_before_root_split(Script& script);
/// The roots split, and entries go again; then one that is taken back.
void splits(Script& script);

/// Few leaves, of which one in the middle is nearly full.
void tree_of_few_leaves(Script& script);
/// That leaf is split between its neighbours, and loses an entry again.
void middle_splits(Script& script);

/// The same one level deeper, and all leaves with few entries.
void tree_of_three_levels(Script& script);
/// All objects go, some at a time: leaves and nodes leave the trees, down to the empty one.
void emptying(Script& script);

}  // namespace torture
