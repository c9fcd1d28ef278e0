// The catalogue of classes as it stands in tests/data/catalogue, whose README tells the form of the
// files. Names stay names here; what they stand for is known to the tests.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace support {

struct ListedProperty {
    uint32_t number = 0;
    std::string name;
    std::string kind;
    std::string flags;  ///< of "NKCXR"
    /// Of a new object, and what an inheriting one reads at last; texts without their quotes, none
    /// for null.
    std::optional<std::string> start;
    std::optional<std::string> end;
    bool must_be_given = false;  ///< neither a start value nor null
    std::string limits;          ///< "1..86400", "length 0..4000", or empty
    std::vector<std::string> of;
    std::set<uint32_t> subtypes;  ///< empty for all
    bool tells_subtype = false;

    [[nodiscard]] bool has(char flag) const { return flags.find(flag) != std::string::npos; }
    [[nodiscard]] bool is_in(uint32_t subtype) const {
        return subtypes.empty() || subtypes.contains(subtype);
    }
};

struct ListedRule {
    std::string greater;
    std::string lesser;
    std::optional<uint32_t> subtype;
    std::string message;
};

/// A nodetype of a class.
struct ListedClass {
    uint32_t number = 0;
    std::string name;
    uint32_t nodetype = 0;
    uint32_t origin = 37;
    /// Of objects below whom at most one may stand: "any", the name of a class, or empty for none.
    std::string singleton;
    std::set<uint32_t> children;  ///< nodetypes
    std::map<int32_t, std::set<uint32_t>> groups;
    std::vector<ListedRule> rules;
    std::vector<ListedProperty> properties;
};

/// By nodetype.
using Catalogue = std::map<uint32_t, ListedClass>;

/// Reads all files of `directory`. Throws std::runtime_error with file and line for what can't be
/// understood.
[[nodiscard]] Catalogue read_catalogue(const std::string& directory);

}  // namespace support
