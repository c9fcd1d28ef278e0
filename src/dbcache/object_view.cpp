#include "dbcache/object_view.h"

#include "dbcache/detail/child_walk.h"
#include "dbcache/detail/sibling_search.h"
#include "dbcache/inheritance.h"

namespace dbcache {

ObjectHandlerRef ObjectView::parent(const NodeId& new_parent) const {
    return new_parent.is_null() ? handler_.parent_object()
                                : handler_.store().resolver().find_object(new_parent);
}

std::vector<TreePlace> ObjectView::path_to_root(const NodeId& id) const {
    std::vector<TreePlace> path;
    // The object at hand may not be stored yet.
    ObjectHandlerRef at = id == handler_.node_id() ? ObjectHandlerRef(&handler_)
                                                   : handler_.store().resolver().find_object(id);
    for (; at; at = at->parent_object()) path.push_back({at->node_id(), at->class_number()});
    return path;
}

bool ObjectView::visit_object(const NodeId& id,
                              const std::function<void(const PropertyChain&)>& visit) const {
    const ObjectHandlerRef object = handler_.store().resolver().find_object(id);
    if (!object) return false;
    visit(InheritanceChain(object->store(), id, object->location()));
    return true;
}

bool ObjectView::visit_siblings(const NodeId& new_parent, const std::set<uint32_t>& classes,
                                const SiblingVisit& visit) const {
    const ObjectHandlerRef above = parent(new_parent);
    if (!above) return false;
    const std::set<uint32_t>& nodetypes = detail::sibling_nodetypes(handler_, *above);
    detail::walk_children(
        handler_.store(), above->node_id(), mdb::parent_id_index, [&](const ObjectHandlerRef& one) {
            if (one->node_id() == handler_.node_id() || !classes.contains(one->class_number()) ||
                !nodetypes.contains(one->nodetype()))
                return true;
            const InheritanceChain chain(one->store(), one->node_id(), one->location());
            return visit(one->node_id(), one->class_number(), chain);
        });
    return true;
}

std::optional<NodeId> ObjectView::find_equal_sibling(const NodeId& new_parent,
                                                     const SiblingKey& key) const {
    const ObjectHandlerRef above = parent(new_parent);
    if (!above) return std::nullopt;
    detail::SiblingSearch search(handler_, *above, key);
    if (search.run()) return search.equal();
    return SchemaObject::find_equal_sibling(new_parent, key);
}

uint32_t ObjectView::parent_class(const NodeId& new_parent) const {
    const ObjectHandlerRef above = parent(new_parent);
    return above ? above->class_number() : kNoParent;
}

// Node classes don't exist yet, so every id stands for itself.
NodeId ObjectView::translate_inherited(const NodeId& id, uint32_t) const {
    return id;
}

std::vector<NodeId> ObjectView::translate_inherited_set(const std::vector<NodeId>& ids,
                                                        uint32_t) const {
    return ids;
}

const platform::Clock& ObjectView::clock() const {
    return handler_.store().clock();
}

std::optional<tql::origin_t> ObjectView::parent_origin() const {
    const ObjectHandlerRef above = handler_.parent_object();
    if (!above) return std::nullopt;
    return above->tqlOrigin();
}

}  // namespace dbcache
