// A pattern: one step of a query and, below it, the steps that children must match.
//
// A pattern is a plain value: a copy owns its children and its values. Copying, comparing and
// destroying don't recurse, so a pattern that came in from outside may be of any depth; whoever
// walks one recursively checks depth() first. The text forms stand in tql/query_text.h.
#pragma once

#include <cstdint>
#include <set>
#include <string_view>
#include <vector>

#include "tql/property.h"

namespace tql {

inline constexpr uint32_t kPatternRecursive = 1;  ///< '*': also to all descendants, through matches
inline constexpr uint32_t kPatternAllProperties = 2;  ///< '!': whatever wanted_properties says
inline constexpr uint32_t kPatternKeep = 4;       ///< '$': stays even when nothing of next matched
inline constexpr uint32_t kPatternTemplates = 8;  ///< '#': templates only
inline constexpr uint32_t kPatternSplice = 16;    ///< '^': no node; its children go to its parent

/// The tag of a step without tag.
inline constexpr uint32_t kNoTag = 0xFFFFFFFF;

/// Deeper patterns are not read from text, and the query engine refuses them.
inline constexpr size_t kMaxPatternDepth = 1000;

/// A condition of a where clause. `value` names the property and holds what it is compared with.
struct condition_t {
    value_t value;
    relop_t op = relop_t::eq;

    static constexpr std::string_view record = "condition";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("value", self.value);
        visit("op", self.op);
    }
    friend bool operator==(const condition_t&, const condition_t&) = default;
};

struct pattern_t {
    uint32_t class_ = 0;  ///< class number; 13 selects any class
    uint32_t flags = 0;
    uint32_t tag = kNoTag;
    std::vector<pattern_t> next;  ///< must be matched by children of a matching object
    std::vector<pattern_t>
        cond_next;                   ///< matched by children too, without deciding whether it stays
    std::vector<condition_t> where;  ///< all must hold
    std::set<uint32_t> wanted_properties;

    pattern_t() = default;
    explicit pattern_t(uint32_t class_number, uint32_t flag_bits = 0)
        : class_(class_number), flags(flag_bits) {}
    pattern_t(const pattern_t& other);
    pattern_t(pattern_t&& other) noexcept = default;
    pattern_t& operator=(const pattern_t& other);
    pattern_t& operator=(pattern_t&& other) noexcept;
    ~pattern_t();

    /// True if the step wants this property.
    [[nodiscard]] bool wants(uint32_t property) const {
        return (flags & kPatternAllProperties) != 0 || wanted_properties.contains(property);
    }
    /// True if it wants any at all.
    [[nodiscard]] bool wants_any() const {
        return (flags & kPatternAllProperties) != 0 || !wanted_properties.empty();
    }
    /// Steps on the longest way down, this one included. Costs a walk of the whole pattern.
    [[nodiscard]] size_t depth() const;

    static constexpr std::string_view record = "pattern";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("class_", self.class_);
        visit("flags", self.flags);
        visit("tag", self.tag);
        visit("next", self.next);
        visit("cond_next", self.cond_next);
        visit("where", self.where);
        visit("wanted_properties", self.wanted_properties);
    }
    /// Equal in every field; values are equal when they are identical().
    friend bool operator==(const pattern_t& a, const pattern_t& b);
};

}  // namespace tql
