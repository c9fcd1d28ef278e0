#include "wapi/result_json.h"

#include <iterator>
#include <nlohmann/json.hpp>

#include "tql/names.h"
#include "tql/pattern.h"
#include "wapi/api.h"
#include "wapi/json_values.h"

namespace wapi {

namespace {

using nlohmann::ordered_json;

constexpr uint32_t kTemplate = 2;  // flag of an object that could be created
/// Marks the nodes of a patch on the way to the object and that of the object itself.
constexpr uint32_t kPatchTag = tql::kNoTag;

/// `changed` is set on the way to the object of a patch.
ordered_json node_to_json(const tql::result_t& node, size_t depth, const tql::id_t* changed) {
    if (depth > kMaxResultDepth)
        throw Refused(500, "RESULT_TOO_DEEP",
                      fmt::format("The result is more than {} levels deep", kMaxResultDepth));
    ordered_json object;
    object["id"] = node.id.to_string();
    object["class"] = tql::class_name(node.class_);
    object["version"] = version_text(node.version);
    if (node.flags != 0) object["flags"] = node.flags;
    const bool is_patch_node = node.tags.contains(kPatchTag);
    const bool leads_on = changed != nullptr && is_patch_node && node.id != *changed;
    if (leads_on) object["on_path"] = true;
    ordered_json tags = node.tags;
    if (is_patch_node) tags.erase(std::prev(tags.end()));  // the highest of all
    if (!tags.empty()) object["tags"] = std::move(tags);
    if (node.origin != tql::origin_t()) object["origin"] = origin_to_json(node.origin);
    object["properties"] = values_to_json(node.class_, node.properties);
    if (ordered_json inherited = inherited_to_json(node.properties); !inherited.empty())
        object["inherited"] = std::move(inherited);
    if ((node.flags & kTemplate) != 0) object["settable"] = settable_to_json(node.properties);
    if (!node.children.empty()) {
        ordered_json& children = object["children"] = ordered_json::array();
        for (const tql::result_t& child : node.children)
            children.push_back(node_to_json(child, depth + 1, leads_on ? changed : nullptr));
    }
    return object;
}

}  // namespace

std::string version_text(const tql::version_t& version) {
    return fmt::format("{}.{}", version.ring_sequence, version.counter);
}

ordered_json origin_to_json(const tql::origin_t& origin) {
    ordered_json object;
    object["domain"] = origin.domain_id.to_string();
    object["user"] = origin.user_id.to_string();
    object["type"] = origin.type;
    return object;
}

ordered_json result_to_json(const tql::result_t& node) {
    return node_to_json(node, 1, nullptr);
}

ordered_json patch_to_json(const tql::result_t& patch, const tql::id_t& changed) {
    return node_to_json(patch, 1, &changed);
}

}  // namespace wapi
