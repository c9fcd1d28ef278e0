// The small tree as the model of patterns sees it, and results as the tests write them down.
#pragma once

#include <fmt/format.h>
#include <optional>
#include <string>

#include "fake_tree.h"
#include "support/pattern_model.h"

namespace fake {

inline const tql::property_map_t& values_of(const Object& object) {
    return object.properties;
}
inline const std::vector<Object*>& children_of(const Object& object) {
    return object.children;
}
inline std::optional<bool> special_match(const Object& object, const tql::condition_t& condition) {
    if (condition.value->property != prop::label) return std::nullopt;
    return object.class_number() == cls::Node;
}

inline std::string text_of(const tql::result_t& node, const std::string& indent = "") {
    std::string text = fmt::format("{}class {} flags {} id {} tags", indent, node.class_,
                                   node.flags, node.id.to_string());
    for (const uint32_t tag : node.tags) text += fmt::format(" {}", tag);
    for (const auto& [number, value] : node.properties)
        text += fmt::format(" {}={}", number, value->is_null ? "null" : value->print());
    text += "\n";
    for (const tql::result_t& child : node.children) text += text_of(child, indent + "  ");
    return text;
}

}  // namespace fake
