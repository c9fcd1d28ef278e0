// The meaning of a pattern, written down as plainly as possible: it walks everything, knows no
// index, copies whatever it merges and recurses freely. What the engine gives is compared with what
// this gives, as text.
//
// A tree is modelled by its objects, of any type with class_number(), tqlId(), tqlInternalId(),
// tqlVersion(), tqlFlags() and tqlOrigin(), and beside it, to be found where the type is declared:
//   values_of(object)               its properties, all of them
//   children_of(object)             pointers to its children of every sort, templates as well
//   special_match(object, where)    whether a condition holds that the class tests by itself
#pragma once

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tql/errors.h"
#include "tql/names.h"
#include "tql/pattern.h"
#include "tql/property_kinds.h"
#include "tql/property_map.h"
#include "tql/result.h"
#include "tqlengine/engine.h"

namespace model {

/// Two nodes that fall together aren't the same object.
struct Mismatch {};

struct Found {
    uint32_t class_number = 0;
    uint32_t flags = 0;
    tql::id_t id;
    tql::version_t version;
    tql::origin_t origin;
    std::set<uint32_t> tags;
    std::map<uint32_t, std::string> properties;
    std::map<tql::internal_id_t, Found> children;
    bool visible = true;
};

using Result = std::optional<Found>;

inline std::string value_text(const tql::property_t& value) {
    return fmt::format("{}:{}/{:x}", value.type_name(), value.is_null ? "null" : value.print(),
                       value.flags);
}

inline void unite(Found& into, const Found& other) {
    if (into.class_number != other.class_number || into.flags != other.flags || into.id != other.id)
        throw Mismatch();
    into.tags.insert(other.tags.begin(), other.tags.end());
    for (const auto& [number, text] : other.properties) into.properties[number] = text;
    into.visible = into.visible || other.visible;
    for (const auto& [key, child] : other.children) {
        const auto [place, inserted] = into.children.emplace(key, child);
        if (!inserted) unite(place->second, child);
    }
}

inline void unite(Result& into, const Result& other) {
    if (!other) return;
    if (into)
        unite(*into, *other);
    else
        into = other;
}

inline void put_child(Found& into, const tql::internal_id_t& key, const Found& child) {
    const auto [place, inserted] = into.children.emplace(key, child);
    if (!inserted) unite(place->second, child);
}

// A child's result goes under the child's key, or what is below it moves up.
template <class Object>
void put_below(Found& into, Object& child, const Result& result) {
    if (!result) return;
    if (result->visible) return put_child(into, child.tqlInternalId(), *result);
    for (const auto& [key, below] : result->children) put_child(into, key, below);
}

inline bool id_condition_holds(const tql::id_t& id, const tql::condition_t& condition) {
    const tql::property_t& value = *condition.value;
    switch (condition.op) {
        case tql::relop_t::in:
            if (value.type() != tql::property_type_t::object_set) break;
            return !value.is_null && tql::as_object_set(value).contains(id);
        case tql::relop_t::eq:
        case tql::relop_t::ne: {
            if (value.type() != tql::property_type_t::object) break;
            const bool equal = !value.is_null && tql::as_object(value) == id;
            return equal == (condition.op == tql::relop_t::eq);
        }
        default:
            break;
    }
    throw errors::tql_incomparable("no such condition on an id");
}

template <class Object>
bool condition_holds(Object& object, const tql::condition_t& condition) {
    if (const std::optional<bool> holds = special_match(object, condition)) return *holds;
    const uint32_t number = condition.value->property;
    const tql::property_map_t& values = values_of(object);
    const auto found = values.find(number);
    if (found != values.end()) return found->second->compare(condition.op, *condition.value);
    return number == prop::id && id_condition_holds(object.tqlId(), condition);
}

template <class Object>
bool object_fits(Object& object, const tql::pattern_t& step) {
    if (step.class_ != cls::Any && step.class_ != object.class_number()) return false;
    const bool wants_template = (step.flags & tql::kPatternTemplates) != 0;
    if ((object.tqlFlags() == tqlengine::kObjectTemplate) != wants_template) return false;
    return std::all_of(step.where.begin(), step.where.end(),
                       [&](const auto& condition) { return condition_holds(object, condition); });
}

template <class Object>
Found node_of(Object& object, const tql::pattern_t& step) {
    Found node;
    node.class_number = object.class_number();
    node.flags = object.tqlFlags();
    node.id = object.tqlId();
    node.version = object.tqlVersion();
    node.origin = object.tqlOrigin();
    node.visible = (step.flags & tql::kPatternSplice) == 0;
    if (step.tag != tql::kNoTag) node.tags.insert(step.tag);
    for (const auto& [number, value] : values_of(object))
        if (step.wants(number)) node.properties[number] = value_text(*value);
    return node;
}

/// What `step` selects at and below `object`.
template <class Object>
Result select(Object& object, const tql::pattern_t& step);

template <class Object>
void add_optional(Found& into, Object& object, const tql::pattern_t& step) {
    for (const tql::pattern_t& successor : step.cond_next)
        for (auto* child : children_of(object)) put_below(into, *child, select(*child, successor));
}

template <class Object>
Result select_plain(Object& object, const tql::pattern_t& step) {
    if (!object_fits(object, step)) return {};
    Found node = node_of(object, step);
    if (step.next.empty()) return node;
    bool any = false;
    for (const tql::pattern_t& successor : step.next)
        for (auto* child : children_of(object)) {
            const Result below = select(*child, successor);
            any = any || below;
            put_below(node, *child, below);
        }
    if (!any && (step.flags & tql::kPatternKeep) == 0) return {};
    add_optional(node, object, step);
    return node;
}

template <class Object>
Result select_recursive(Object& object, const tql::pattern_t& step) {
    Result all;
    for (const tql::pattern_t& successor : step.next) unite(all, select(object, successor));
    if (!object_fits(object, step)) return all;
    Found node = node_of(object, step);
    bool any = false;
    for (auto* child : children_of(object)) {
        const Result below = select(*child, step);
        any = any || below;
        put_below(node, *child, below);
    }
    if (!any && !step.next.empty() && (step.flags & tql::kPatternKeep) == 0) return all;
    unite(all, Result(node));
    add_optional(*all, object, step);
    return all;
}

template <class Object>
Result select(Object& object, const tql::pattern_t& step) {
    return (step.flags & tql::kPatternRecursive) != 0 ? select_recursive(object, step)
                                                      : select_plain(object, step);
}

/// The root of a result tells its parent even if it doesn't know it itself.
template <class Object>
void add_parent(Found& root, const tql::pattern_t& pattern, Object* parent) {
    if (!pattern.wants(prop::parentId) || root.properties.contains(prop::parentId)) return;
    tql::property_map_t value;
    if (parent)
        tql::add<tql::property_object_t>(value, prop::parentId, parent->tqlId(),
                                         tql::kFlagComputed);
    else
        tql::add_null<tql::property_object_t>(value, prop::parentId, tql::kFlagComputed);
    root.properties[prop::parentId] = value_text(*value.at(prop::parentId));
}

/// Objects from the top of the tree down, each the parent of the next.
template <class Object>
using Way = std::vector<Object*>;

/// What a patch for the last object of `way` holds of the way from `place` on: a branch of tagged
/// nodes, what stands beside it on condition, and at its end the object in full. Hidden objects
/// stand on the branch like others.
template <class Object>
Result patch(const Way<Object>& way, size_t place, const tql::pattern_t& step) {
    Object& object = *way[place];
    if (place + 1 == way.size()) {
        Result full = select(object, step);
        if (full) full->tags.insert(tqlengine::kPatchPath);
        return full;
    }
    const bool recursive = (step.flags & tql::kPatternRecursive) != 0;
    Result all;
    bool next_is_here = false;
    if (recursive) {
        for (const tql::pattern_t& successor : step.next) {
            const Result here = patch(way, place, successor);
            next_is_here = next_is_here || here;
            unite(all, here);
        }
        for (const tql::pattern_t& successor : step.cond_next)
            unite(all, patch(way, place, successor));
    }
    if (!object_fits(object, step)) return all;
    Result below;
    if (recursive) {
        below = patch(way, place + 1, step);
    } else {
        for (const auto* successors : {&step.next, &step.cond_next})
            for (const tql::pattern_t& successor : *successors)
                unite(below, patch(way, place + 1, successor));
        if (!below) return {};
    }
    if (!below && !step.next.empty() && (step.flags & tql::kPatternKeep) == 0) return all;
    // The object is there for its own sake, and with it what was found from here.
    if (!below && !next_is_here) return {};
    Found node = node_of(object, step);
    node.tags.insert(tqlengine::kPatchPath);
    if (below) put_child(node, way[place + 1]->tqlInternalId(), *below);
    unite(all, Result(node));
    add_optional(*all, object, step);
    return all;
}

/// Whether `step`, read along `way` from `place` on, can reach its last object.
template <class Object>
bool would_match(const Way<Object>& way, size_t place, const tql::pattern_t& step) {
    if (place == way.size()) return false;
    const bool last = place + 1 == way.size();
    const bool recursive = (step.flags & tql::kPatternRecursive) != 0;
    const auto any_successor_at = [&](size_t there) {
        const auto reaches = [&](const tql::pattern_t& successor) {
            return would_match(way, there, successor);
        };
        return std::any_of(step.next.begin(), step.next.end(), reaches) ||
               std::any_of(step.cond_next.begin(), step.cond_next.end(), reaches);
    };
    if (recursive && any_successor_at(place)) return true;
    if (!object_fits(*way[place], step)) return false;
    if (last || recursive) return last || would_match(way, place + 1, step);
    return !step.next.empty() && any_successor_at(place + 1);
}

inline std::string head_text(uint32_t class_number, uint32_t flags, const tql::id_t& id,
                             const tql::version_t& version, const tql::origin_t& origin) {
    return fmt::format("{} {} flags {} version {}.{} origin {},{},{} tags",
                       tql::class_name(class_number), id.to_string(), flags, version.ring_sequence,
                       version.counter, origin.domain_id.to_string(), origin.user_id.to_string(),
                       origin.type);
}

inline std::string text_of(const Found& node, const std::string& indent = "") {
    std::string text =
        indent + head_text(node.class_number, node.flags, node.id, node.version, node.origin);
    for (const uint32_t tag : node.tags) text += fmt::format(" {}", tag);
    for (const auto& [number, value] : node.properties)
        text += fmt::format(" {}={}", tql::property_name(number), value);
    text += "\n";
    for (const auto& entry : node.children) text += text_of(entry.second, indent + "  ");
    return text;
}

inline std::string text_of(const tql::result_t& node, const std::string& indent = "") {
    std::string text =
        indent + head_text(node.class_, node.flags, node.id, node.version, node.origin);
    for (const uint32_t tag : node.tags) text += fmt::format(" {}", tag);
    for (const auto& [number, value] : node.properties)
        text += fmt::format(" {}={}", tql::property_name(number), value_text(*value));
    text += "\n";
    for (const tql::result_t& child : node.children) text += text_of(child, indent + "  ");
    return text;
}

}  // namespace model
