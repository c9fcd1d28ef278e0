// The meaning of a pattern, written down as plainly as possible: it walks everything, knows no
// index, copies whatever it merges and recurses freely. What the engine gives is compared with what
// this gives, as text.
#pragma once

#include <fmt/format.h>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "fake_tree.h"
#include "tql/result.h"

namespace fake {

struct Found {
    uint32_t class_number = 0;
    uint32_t flags = 0;
    tql::id_t id;
    std::set<uint32_t> tags;
    std::map<uint32_t, std::string> properties;
    std::map<tql::internal_id_t, Found> children;
    bool visible = true;
};

using Result = std::optional<Found>;

inline std::string value_text(const tql::property_t& value) {
    return value.is_null ? "null" : value.print();
}

inline void unite(Found& into, const Found& other) {
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

// A child's result goes under the child's key, or what is below it moves up.
inline void put_below(Found& into, const Object& child, const Result& result) {
    if (!result) return;
    Found below;
    if (result->visible)
        below.children.emplace(child.tqlInternalId(), *result);
    else
        below.children = result->children;
    below.visible = false;
    unite(into, below);
}

inline bool condition_holds(const Object& object, const tql::condition_t& condition) {
    const uint32_t number = condition.value->property;
    if (number == prop::label) return object.class_number() == cls::Node;
    if (number != prop::id) {
        const auto found = object.properties.find(number);
        return found != object.properties.end() &&
               found->second->compare(condition.op, *condition.value);
    }
    if (condition.value->is_null) return condition.op == tql::relop_t::ne;
    if (condition.op == tql::relop_t::in)
        return tql::as_object_set(*condition.value).contains(object.tqlId());
    const bool equal = tql::as_object(*condition.value) == object.tqlId();
    return equal == (condition.op == tql::relop_t::eq);
}

inline bool object_fits(const Object& object, const tql::pattern_t& step) {
    if (step.class_ != cls::Any && step.class_ != object.class_number()) return false;
    const bool wants_template = (step.flags & tql::kPatternTemplates) != 0;
    if ((object.flags == tqlengine::kObjectTemplate) != wants_template) return false;
    for (const tql::condition_t& condition : step.where)
        if (!condition_holds(object, condition)) return false;
    return true;
}

inline Found node_of(const Object& object, const tql::pattern_t& step) {
    Found node{object.class_number(), object.flags, object.tqlId(), {}, {}, {}, true};
    node.visible = (step.flags & tql::kPatternSplice) == 0;
    if (step.tag != tql::kNoTag) node.tags.insert(step.tag);
    for (const auto& [number, value] : object.properties)
        if (step.wants(number)) node.properties[number] = value_text(*value);
    return node;
}

Result model(Object& object, const tql::pattern_t& step);

inline Result model_plain(Object& object, const tql::pattern_t& step) {
    if (!object_fits(object, step)) return {};
    Found node = node_of(object, step);
    if (step.next.empty()) return node;
    bool any = false;
    for (const tql::pattern_t& successor : step.next)
        for (Object* child : object.children) {
            const Result below = model(*child, successor);
            any = any || below;
            put_below(node, *child, below);
        }
    if (!any && (step.flags & tql::kPatternKeep) == 0) return {};
    for (const tql::pattern_t& successor : step.cond_next)
        for (Object* child : object.children) put_below(node, *child, model(*child, successor));
    return node;
}

inline Result model_recursive(Object& object, const tql::pattern_t& step) {
    Result all;
    for (const tql::pattern_t& successor : step.next) unite(all, model(object, successor));
    if (!object_fits(object, step)) return all;
    Found node = node_of(object, step);
    bool any = false;
    for (Object* child : object.children) {
        const Result below = model(*child, step);
        any = any || below;
        put_below(node, *child, below);
    }
    if (!any && !step.next.empty() && (step.flags & tql::kPatternKeep) == 0) return all;
    unite(all, Result(node));
    for (const tql::pattern_t& successor : step.cond_next)
        for (Object* child : object.children) put_below(*all, *child, model(*child, successor));
    return all;
}

inline Result model(Object& object, const tql::pattern_t& step) {
    return (step.flags & tql::kPatternRecursive) != 0 ? model_recursive(object, step)
                                                      : model_plain(object, step);
}

inline std::string text_of(const Found& node, const std::string& indent = "") {
    std::string text = fmt::format("{}class {} flags {} id {} tags", indent, node.class_number,
                                   node.flags, node.id.to_string());
    for (const uint32_t tag : node.tags) text += fmt::format(" {}", tag);
    for (const auto& [number, value] : node.properties)
        text += fmt::format(" {}={}", number, value);
    text += "\n";
    for (const auto& entry : node.children) text += text_of(entry.second, indent + "  ");
    return text;
}

inline std::string text_of(const tql::result_t& node, const std::string& indent = "") {
    std::string text = fmt::format("{}class {} flags {} id {} tags", indent, node.class_,
                                   node.flags, node.id.to_string());
    for (const uint32_t tag : node.tags) text += fmt::format(" {}", tag);
    for (const auto& [number, value] : node.properties)
        text += fmt::format(" {}={}", number, value_text(*value));
    text += "\n";
    for (const tql::result_t& child : node.children) text += text_of(child, indent + "  ");
    return text;
}

}  // namespace fake
