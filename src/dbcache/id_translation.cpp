#include "dbcache/id_translation.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>

#include "dbcache/detail/write_faults.h"
#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/resolver.h"
#include "mdb/property_types.h"
#include "tql/names.h"

namespace dbcache {

namespace {

/// What a node class has in the place of a node.
constexpr uint32_t kNodeClassTop = cls::NodeClassNodeConfig;

/// The class under a node that a configuration of this class stands for.
std::optional<uint32_t> corresponding_class(uint32_t config_class) {
    switch (config_class) {
        case cls::NodeClassCheckGroupConfig:
            return cls::CheckGroup;
        case cls::NodeClassCheckConfig:
            return cls::Check;
        case cls::NodeClassCheckAccumulationConfig:
            return cls::CheckAccumulation;
        default:
            return std::nullopt;
    }
}

/// What all stand for that `member` does; none if it isn't one for all.
std::optional<uint32_t> class_stood_for(const tqlengine::TqlObjectHandler& member) {
    const auto* stored = dynamic_cast<const ObjectHandler*>(&member);
    const std::optional<uint32_t> wanted = corresponding_class(member.class_number());
    if (stored == nullptr || !wanted) return std::nullopt;
    mdb::PropertyBool for_all(prop::forAll);
    const InheritanceChain chain(stored->store(), stored->node_id(), stored->location());
    const bool is_set = chain.read(0, for_all) == found_t::value && for_all.value;
    return is_set ? wanted : std::nullopt;
}

bool inherits_from(const tqlengine::TqlObjectHandler& object, const tql::id_t& parent) {
    const auto* stored = dynamic_cast<const ObjectHandler*>(&object);
    if (stored == nullptr) return false;
    const InheritanceChain chain(stored->store(), stored->node_id(), stored->location());
    return tql::id_t::from_node_id(chain.inherits()) == parent;
}

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
    for (tqlengine::WayUp at(std::move(object)); at; at.up()) {
        path.push_back(at.ref());
        if (!is_top(*at)) continue;
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
        return detail::with_faults_as_failures([&] { return correspondents(wanted); });
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
        places = children_for(places, **member);
    std::vector<NodeId> ids;
    for (const tqlengine::HandlerRef& place : places) {
        // A group without storage is no object that a reference could name.
        const tql::id_t id = place->tqlId();
        if (id.size() <= 2) ids.push_back(id.to_node_id());
    }
    return ids;
}

IdTranslation::Path IdTranslation::children_for(const Path& places,
                                                const tqlengine::TqlObjectHandler& member) {
    const tql::pattern_t every_child(cls::Any);
    const std::optional<uint32_t> all_of_class = class_stood_for(member);
    const tql::id_t inherits = member.tqlId();
    Path found;
    for (const tqlengine::HandlerRef& place : places) {
        tqlengine::HandlerList children;
        place->tqlChildrenHandlers(children, every_child);
        for (tqlengine::HandlerRef& child : children)
            if (child->class_number() == all_of_class || inherits_from(*child, inherits))
                found.push_back(std::move(child));
    }
    return found;
}

}  // namespace dbcache
