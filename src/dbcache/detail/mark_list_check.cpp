#include "dbcache/detail/mark_list_check.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

#include "dbcache/fixed_ids.h"
#include "dbcache/stored_tree.h"
#include "tql/names.h"

namespace dbcache::detail {

namespace {

std::optional<bool> find_mark(uint32_t mark, mark_role_t role, const mdb::dobj& object) {
    if (role != mark_role_t::by_value && role != mark_role_t::always_marked) return std::nullopt;
    try {
        return is_marked(mark, role, object);
    } catch (const mdb::error_nullprop&) {
        return std::nullopt;
    }
}

}  // namespace

MarkedObject read_marked_object(const mdb::dobj& object, uint32_t mark) {
    MarkedObject read;
    read.parent = find_value<mdb::PropertyNodeId>(object, prop::parentId).value_or(NodeId{});
    if (const auto type = find_value<PropertyNodeType>(object, prop::nodeType))
        read.role = mark_role(mark, static_cast<uint32_t>(*type));
    read.should = find_mark(mark, read.role, object);
    read.links = find_value<mdb::PropertyMarkIndex>(object, mark);
    return read;
}

MarkListCheck::MarkListCheck(MarkedObjects& objects, uint32_t mark, Report report)
    : objects_(objects), mark_(mark), name_(tql::property_name(mark)), report_(std::move(report)) {}

void MarkListCheck::break_off(const NodeId& object, const std::string& text) {
    broken_ = true;
    report_(object, text);
}

void MarkListCheck::report_last(const NodeId& id) {
    report_(id, fmt::format("Object {} does not have correct last pointer", id));
}

// ---- the list ----------------------------------------------------------------------------------

void MarkListCheck::follow_list() {
    NodeId id = kRootId;
    std::optional<MarkedObject> object = objects_.find(id, mark_);
    if (!object || !object->links) return;
    if (!object->links->prev.is_null())
        report_(id, fmt::format("Object {} does not point back at {}", id, NodeId{}));
    while (true) {
        listed_.insert(id);
        check_place(id, *object);
        if (broken_) return;
        const NodeId next = object->links->next;
        if (next.is_null()) return check_end(id);
        object = find_next(id, next);
        if (!object) return;
        id = next;
    }
}

/// Opens the stretch of the object and closes those that end with it.
void MarkListCheck::check_place(const NodeId& id, const MarkedObject& object) {
    const mdb::MarkLinks& links = *object.links;
    if (object.should && *object.should != links.marked)
        report_(id, fmt::format("Object {} has {} with a wrong mark", id, name_));
    if (id != kRootId) check_parent(id, object);
    if (broken_) return;
    if (!links.marked && links.last == id) report_last(id);
    open_.push_back({id, links.last});
    while (!open_.empty() && open_.back().last == id) open_.pop_back();
    before_ = id;
}

/// The parent must be the innermost object whose stretch isn't over. One inside it that ended with
/// the object before was only kept open by another.
void MarkListCheck::check_parent(const NodeId& id, const MarkedObject& object) {
    const NodeId& parent = object.parent;
    // From behind, where it mostly stands, however deep the tree is.
    const auto found = std::find_if(open_.rbegin(), open_.rend(),
                                    [&](const Open& open) { return open.id == parent; });
    if (found != open_.rend()) {
        while (open_.back().id != parent) {
            if (open_.back().last != before_) report_last(open_.back().id);
            open_.pop_back();
        }
        return;
    }
    const auto above = objects_.find(parent, mark_);
    if (!above)
        break_off(id, fmt::format("Object {} refers to nonexistant object {}", id, parent));
    else if (!above->links)
        break_off(id, fmt::format("Object {} refers to white object {}", id, parent));
    else
        break_off(parent, fmt::format("Object {} does not have correct last pointer", parent));
}

std::optional<MarkedObject> MarkListCheck::find_next(const NodeId& id, const NodeId& next) {
    std::optional<MarkedObject> object = objects_.find(next, mark_);
    if (!object) {
        break_off(id, fmt::format("Object {} refers to nonexistant object {}", id, next));
    } else if (!object->links) {
        break_off(next, fmt::format("Object {} does not have {} even though {} points to it", next,
                                    name_, id));
    } else if (listed_.contains(next)) {
        break_off(id, fmt::format("Object {} refers to already linked object {}", id, next));
    } else {
        if (object->links->prev != id)
            report_(next, fmt::format("Object {} does not point back at {}", next, id));
        return object;
    }
    return std::nullopt;
}

/// The list ends with `id`, and so must all stretches. Where one doesn't, its end lies still ahead
/// if the list was cut short; otherwise it isn't where the object says.
void MarkListCheck::check_end(const NodeId& id) {
    bool cut_short = false;
    for (const Open& open : open_) {
        if (open.last == id) continue;
        if (is_ahead(open.last))
            cut_short = true;
        else
            report_last(open.id);
    }
    if (cut_short) break_off(id, fmt::format("Object {} has invalid next pointer", id));
}

bool MarkListCheck::is_ahead(const NodeId& id) {
    if (listed_.contains(id)) return false;
    const auto object = objects_.find(id, mark_);
    return object && object->links;
}

// ---- the objects -------------------------------------------------------------------------------

void MarkListCheck::expect(const NodeId& id) {
    if (broken_) return;
    const auto object = objects_.find(id, mark_);
    if (!object) return;
    const bool unknown = object->role == mark_role_t::by_value && !object->should;
    if (!unknown && !object->should.value_or(false)) return;
    if (listed_.contains(id)) {
        if (unknown) return;
        ++marked_;
        return expect_ancestors(id, object->parent);
    }
    if (standing(object->parent) != standing_t::in_reach) return;
    if (unknown)
        report_(id, fmt::format("Object {} does not say whether it is active", id));
    else if (!object->links)
        report_(id, fmt::format("Object {} refers to white object {}", object->parent, id));
    else
        report_stray(id);
}

void MarkListCheck::expect_no_stray(const NodeId& id) {
    if (broken_ || listed_.contains(id)) return;
    const auto object = objects_.find(id, mark_);
    if (!object || !object->links || object->should.value_or(false)) return;
    if (standing(object->parent) != standing_t::detached) report_stray(id);
}

void MarkListCheck::report_stray(const NodeId& id) {
    report_(id, fmt::format("Object {} has {} without a place in the list", id, name_));
}

void MarkListCheck::expect_ancestors(NodeId id, NodeId parent) {
    while (!parent.is_null() && ancestors_.insert(parent).second) {
        if (!listed_.contains(parent))
            return report_(id, fmt::format("Object {} refers to white object {}", id, parent));
        id = parent;
        const auto object = objects_.find(parent, mark_);
        parent = object ? object->parent : NodeId{};
    }
}

/// Goes up to the root, or to an object whose standing is known, and notes that of all passed.
MarkListCheck::standing_t MarkListCheck::standing(NodeId id) {
    struct Passed {
        NodeId id;
        bool outside;
    };
    std::vector<Passed> way;
    std::set<NodeId> passed_ids;  // the parents may form a ring
    standing_t found = standing_t::detached;
    while (passed_ids.insert(id).second) {
        const auto known = standings_.find(id);
        if (known != standings_.end()) {
            found = known->second;
            break;
        }
        const auto object = objects_.find(id, mark_);
        if (!object) break;
        way.push_back({id, object->role == mark_role_t::outside});
        if (id == kRootId) {
            found = standing_t::in_reach;
            break;
        }
        id = object->parent;
    }
    for (auto passed = way.rbegin(); passed != way.rend(); ++passed) {
        if (found == standing_t::in_reach && passed->outside) found = standing_t::apart;
        standings_.emplace(passed->id, found);
    }
    return found;
}

}  // namespace dbcache::detail
