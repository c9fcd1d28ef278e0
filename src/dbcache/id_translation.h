// IdTranslation: what the ids in an inherited value mean for the object that inherits it. A node
// class mirrors the tree of a node; an object under a node inherits from an object of the class,
// and ids in its values name other objects of the class. Each stands for the object that inherits
// from it under the same node, or for every object of its kind where the configuration is one
// `forAll`; the latter is how groups correspond, which have no `inherits`:
//
//     NodeClassNodeConfig             Node
//     └─ G                            └─ g
//        ├─ C  other = D                 ├─ c  inherits C, so its other = d
//        └─ D                            └─ d  inherits D
//
// The ways down from the two tops are compared level by level, groups without storage counted as a
// level. What they have in common leads to the place under the node from which the rest of the way
// is looked up.
#pragma once

#include <vector>

#include "dbcache/store.h"
#include "error/exception.h"

namespace dbcache {

/// An object stands under no node and under no node class. Never leaves this folder.
class ENotInNodeOrNodeClass : public error::Exception {
  public:
    ENotInNodeOrNodeClass() : Exception("ENotInNodeOrNodeClass") {}
};

class IdTranslation {
  public:
    /// For values that `object`, stored or not, gets from the object `inherits`. `store` and
    /// `object` must outlive this.
    IdTranslation(Store& store, tqlengine::TqlObjectHandler& object, const NodeId& inherits);

    /// The ids that correspond to `id`; `id` alone where it names nothing, or something outside of
    /// any node class, or where object or parent stand outside of them. Throws errors::tql with
    /// code 10 for an id in another node class, and for an object that stands higher than the way
    /// from the parent to `id` begins; with code 14 for damaged objects on the way. Costs a listing
    /// of the children of each object on that way.
    [[nodiscard]] std::vector<NodeId> candidates(const NodeId& id) const;

  private:
    /// From the nearest node or node class, which comes first, down to the object.
    using Path = std::vector<tqlengine::HandlerRef>;

    /// Throws ENotInNodeOrNodeClass; so does the one for an id under which nothing is found.
    static Path path_to(tqlengine::HandlerRef object);
    [[nodiscard]] Path path_to(const NodeId& id) const;
    [[nodiscard]] std::vector<NodeId> correspondents(const Path& wanted) const;
    /// The children of `places` that `member`, an object of the class, stands for.
    [[nodiscard]] static Path children_for(const Path& places,
                                           const tqlengine::TqlObjectHandler& member);

    Store& store_;
    tqlengine::TqlObjectHandler& object_;
    /// Empty where one of them stands under neither: nothing is translated then.
    Path object_path_;
    Path parent_path_;
};

}  // namespace dbcache
