// A result of a query as it travels: a tree of nodes in the shape of the object tree, holding what
// matched. A patch of a result has the same record.
//
// A result is a plain value. Copying, comparing and destroying don't recurse, so depth is no danger
// to the stack. What the query engine builds while it evaluates is its own.
#pragma once

#include <cstdint>
#include <set>
#include <string_view>
#include <vector>

#include "tql/id.h"
#include "tql/origin.h"
#include "tql/property.h"
#include "tql/version.h"

namespace tql {

struct result_t {
    uint32_t class_ = 0;
    uint32_t flags = 0;  ///< flags of the object, not of the pattern
    std::set<uint32_t> tags;
    id_t id;
    version_t version;
    property_map_t properties;
    std::vector<result_t> children;
    origin_t origin;

    result_t() = default;
    result_t(const result_t& other);
    result_t(result_t&& other) noexcept = default;
    result_t& operator=(const result_t& other);
    result_t& operator=(result_t&& other) noexcept;
    ~result_t();

    static constexpr std::string_view record = "patch";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("class_", self.class_);
        visit("flags", self.flags);
        visit("tags", self.tags);
        visit("id", self.id);
        visit("version", self.version);
        visit("properties", self.properties);
        visit("children", self.children);
        visit("origin", self.origin);
    }
    /// Equal in every field; values are equal when they are identical().
    friend bool operator==(const result_t& a, const result_t& b);
};

}  // namespace tql
