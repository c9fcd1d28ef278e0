// SiblingSearch: one look for a sibling with an equal key. The first children are compared one by
// one; where there are more, the keys of all are put into the store's SiblingKeyIndex, and this and
// later searches compare with its candidates alone.
#pragma once

#include <optional>

#include "dbcache/object_handler.h"
#include "dbcache/sibling_key.h"
#include "dbcache/sibling_key_index.h"

namespace dbcache::detail {

/// Nodetypes of the children of `parent` that count as siblings of `object`: those of its group, or
/// those that stand directly under the parent.
[[nodiscard]] const std::set<uint32_t>& sibling_nodetypes(const ObjectHandler& object,
                                                          const ObjectHandler& parent);

class SiblingSearch {
  public:
    /// Children that are met before an index is worth its memory.
    static constexpr size_t kDirectChildren = 32;

    /// `object` itself is never found. All three must outlive the search.
    SiblingSearch(ObjectHandler& object, ObjectHandler& parent, const SiblingKey& key)
        : object_(object),
          parent_(parent),
          key_(key),
          store_(object.store()),
          nodetypes_(sibling_nodetypes(object, parent)) {}

    /// False when there are many children and no index can be had: one isn't built while a
    /// transaction is open, nor beyond its bound. Throws mdb::error_generic.
    [[nodiscard]] bool run();
    /// After run(): the equal sibling, by the order of the parent's children the first one.
    [[nodiscard]] const std::optional<NodeId>& equal() const noexcept { return equal_; }

  private:
    struct Match {
        NodeId id;
        mdb::block_handle_t place;
    };

    /// Compares one by one; false when it gave up after kDirectChildren.
    bool search_directly();
    [[nodiscard]] ParentKeys* build(KeyScope scope);
    void search_in(ParentKeys& keys);
    /// The place of `id` if its stored record makes it an equal sibling. A candidate that no longer
    /// is one is taken out of `keys`.
    std::optional<mdb::block_handle_t> check(ParentKeys& keys, uint64_t hash, const NodeId& id);
    [[nodiscard]] bool is_sibling(const PropertyChain& record) const;
    [[nodiscard]] const NodeId& first_of(const std::vector<Match>& matches) const;

    ObjectHandler& object_;
    ObjectHandler& parent_;
    const SiblingKey& key_;
    Store& store_;
    const std::set<uint32_t>& nodetypes_;
    std::optional<NodeId> equal_;
};

}  // namespace dbcache::detail
