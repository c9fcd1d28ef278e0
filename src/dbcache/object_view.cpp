#include "dbcache/object_view.h"

#include <fmt/format.h>

#include "dbcache/detail/child_walk.h"
#include "dbcache/detail/sibling_search.h"
#include "dbcache/detail/write_faults.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/id_translation.h"
#include "dbcache/inheritance.h"
#include "log/log.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

[[noreturn]] void fail_ambiguous(const NodeId& id, uint32_t property) {
    fail_illegal_value(
        fmt::format("More than one object corresponding to {} translating property {}", id,
                    tql::property_name(property)));
}

}  // namespace

ObjectHandlerRef ObjectView::parent(const NodeId& new_parent) const {
    return new_parent.is_null() ? handler_.parent_object()
                                : handler_.store().resolver().find_object(new_parent);
}

std::vector<TreePlace> ObjectView::path_to_root(const NodeId& id) const {
    std::vector<TreePlace> path;
    // The object at hand may not be stored yet.
    tqlengine::WayUp at(id == handler_.node_id() ? ObjectHandlerRef(&handler_)
                                                 : handler_.store().resolver().find_object(id));
    for (; at; at.up()) path.push_back({at->node_id(), at->class_number()});
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

NodeId ObjectView::translate_inherited(const NodeId& inherits, const NodeId& id,
                                       uint32_t property) const {
    logger.write(logging::level_t::trace, "Translating id {} in object {}:{} inheriting from {}",
                 id, tql::class_name(schema_class()), node_id(), inherits);
    const IdTranslation translation(handler_.store(), handler_, inherits);
    const std::vector<NodeId> candidates = translation.candidates(id);
    if (candidates.size() == 1) return candidates.front();
    if (!candidates.empty()) fail_ambiguous(id, property);
    fail_illegal_value(fmt::format("No object corresponding to {} translating property {}", id,
                                   tql::property_name(property)));
}

std::vector<NodeId> ObjectView::translate_inherited_set(const NodeId& inherits,
                                                        const std::vector<NodeId>& ids,
                                                        uint32_t property) const {
    logger.write(logging::level_t::trace, "Translating id set in object {}:{} inheriting from {}",
                 tql::class_name(schema_class()), node_id(), inherits);
    const IdTranslation translation(handler_.store(), handler_, inherits);
    std::vector<NodeId> translated;
    for (const NodeId& id : ids) {
        const std::vector<NodeId> candidates = translation.candidates(id);
        if (candidates.size() > 1) fail_ambiguous(id, property);
        if (!candidates.empty()) translated.push_back(candidates.front());
    }
    return translated;
}

const platform::Clock& ObjectView::clock() const {
    return handler_.store().clock();
}

std::optional<tql::origin_t> ObjectView::parent_origin() const {
    if (parent_origin_ != nullptr) return *parent_origin_;
    const ObjectHandlerRef above = handler_.parent_object();
    if (!above) return std::nullopt;
    return above->tqlOrigin();
}

std::string object_path(Store& store, const NodeId& id) {
    const auto names = [&] {
        std::string path;
        tqlengine::WayUp at(store.resolver().find_object(id));
        if (!at) return id.to_string();
        for (; at && at->node_id() != kRootId; at.up()) {
            const InheritanceChain chain(at->store(), at->node_id(), at->location());
            const auto name = at->schema().siblingName(chain);
            path = "/" + (name && !name->empty() ? *name : at->node_id().to_string()) + path;
        }
        return path.empty() ? "/" : path;
    };
    try {
        return detail::with_faults_as_failures(names);
    } catch (const errors::tql&) {
        return id.to_string();
    }
}

}  // namespace dbcache
