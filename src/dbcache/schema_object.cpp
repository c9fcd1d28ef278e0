#include "dbcache/schema_object.h"

#include "dbcache/sibling_key.h"

namespace dbcache {

std::optional<NodeId> SchemaObject::find_equal_sibling(const NodeId& new_parent,
                                                       const SiblingKey& key) const {
    std::optional<NodeId> equal;
    visit_siblings(new_parent, key.classes(),
                   [&](const NodeId& id, uint32_t, const PropertyChain& sibling) {
                       if (key.equals(sibling)) equal = id;
                       return !equal;
                   });
    return equal;
}

}  // namespace dbcache
