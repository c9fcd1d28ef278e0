// Nodes of results as JSON, and patches of results, whose nodes look the same.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tql/origin.h"
#include "tql/result.h"

namespace wapi {

/// Results are walked by recursion; a tree of objects deeper than this is not told.
inline constexpr size_t kMaxResultDepth = 2000;

/// The two numbers joined by a point.
[[nodiscard]] std::string version_text(const tql::version_t& version);

[[nodiscard]] nlohmann::ordered_json origin_to_json(const tql::origin_t& origin);

/// A node with all below it. Throws Refused for a deeper one.
[[nodiscard]] nlohmann::ordered_json result_to_json(const tql::result_t& node);

/// A patch for the object `changed`: nodes that only lead to it have "on_path": true. Throws as
/// above.
[[nodiscard]] nlohmann::ordered_json patch_to_json(const tql::result_t& patch,
                                                   const tql::id_t& changed);

}  // namespace wapi
