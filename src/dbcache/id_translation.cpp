#include "dbcache/id_translation.h"

#include <algorithm>
#include <fmt/format.h>

#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/resolver.h"
#include "tql/names.h"

namespace dbcache {

namespace {

/// What a node class has in the place of a node.
constexpr uint32_t kNodeClassTop = cls::NodeClassNodeConfig;

bool is_top(const tqlengine::TqlObjectHandler& handler) {
    return handler.class_number() == cls::Node || handler.class_number() == kNodeClassTop;
}

}  // namespace

IdTranslation::IdTranslation(Store& store, tqlengine::TqlObjectHandler& object,
                             const NodeId& inherits)
    : store_(store), object_(object) {
    try {
        Path own = path_to(tqlengine::HandlerRef(&object));
        parent_path_ = path_to(inherits);
        object_path_ = std::move(own);
    } catch (const ENotInNodeOrNodeClass&) {
        // Nothing corresponds to anything; candidates() sees that there are no paths.
    }
}

IdTranslation::Path IdTranslation::path_to(tqlengine::HandlerRef object) {
    Path path;
    for (; object; object = path.back()->tqlParentHandler()) {
        path.push_back(object);
        if (!is_top(*object)) continue;
        std::reverse(path.begin(), path.end());
        return path;
    }
    throw ENotInNodeOrNodeClass();
}

IdTranslation::Path IdTranslation::path_to(const NodeId& id) const {
    return path_to(tqlengine::HandlerRef(store_.resolver().find_object(id)));
}

std::vector<NodeId> IdTranslation::candidates(const NodeId& id) const {
    if (object_path_.empty()) return {id};
    try {
        const Path wanted = path_to(id);
        if (wanted.front()->class_number() != kNodeClassTop) return {id};
        return correspondents(wanted);
    } catch (const ENotInNodeOrNodeClass&) {
        return {id};
    }
}

std::vector<NodeId> IdTranslation::correspondents(const Path& wanted) const {
    const auto same = [](const tqlengine::HandlerRef& a, const tqlengine::HandlerRef& b) {
        return a->tqlId() == b->tqlId();
    };
    const std::string own_id = object_.tqlId().to_string();
    if (!same(wanted.front(), parent_path_.front()))
        fail_illegal_value("Cross-nodeclass reference in " + own_id);
    const auto parting =
        std::mismatch(wanted.begin(), wanted.end(), parent_path_.begin(), parent_path_.end(), same)
            .first;
    const auto common = static_cast<size_t>(parting - wanted.begin());
    if (object_path_.size() < common) fail_illegal_value("Translation error in " + own_id);

    Path places{object_path_[common - 1]};
    for (auto member = parting; member != wanted.end() && !places.empty(); ++member)
        places = children_inheriting(places, (*member)->tqlId());
    std::vector<NodeId> ids;
    for (const tqlengine::HandlerRef& place : places) {
        // A group without storage is no object that a reference could name.
        const tql::id_t id = place->tqlId();
        if (id.size() <= 2) ids.push_back(id.to_node_id());
    }
    return ids;
}

IdTranslation::Path IdTranslation::children_inheriting(const Path& places,
                                                       const tql::id_t& inherits) {
    const tql::pattern_t every_child(cls::Any);
    Path found;
    for (const tqlengine::HandlerRef& place : places) {
        tqlengine::HandlerList children;
        place->tqlChildrenHandlers(children, every_child);
        for (tqlengine::HandlerRef& child : children) {
            const auto* stored = dynamic_cast<const ObjectHandler*>(child.get());
            if (stored == nullptr) continue;
            const InheritanceChain chain(stored->store(), stored->node_id(), stored->location());
            if (tql::id_t::from_node_id(chain.inherits()) == inherits)
                found.push_back(std::move(child));
        }
    }
    return found;
}

}  // namespace dbcache
