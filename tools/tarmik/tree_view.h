// The answer of a select as a tree for people:
//
//   Domain 1.17  name="branch" label="Branch office"
//   ├─ Node 1.18  name="gw-1"
//   └─ Node 1.19  name="gw-2" label="Gateway" (inherited)
//
// The class of a template has a # behind it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>

namespace cli {

/// `results` is the list of the answer. Each object is one line, with its values behind it; each
/// line ends with a line end. Control characters of values are shown as escapes.
[[nodiscard]] std::string tree_text(const nlohmann::ordered_json& results, bool colored);

/// The line of one object, without a line end. The values named are shown in bold when colored.
[[nodiscard]] std::string object_line(const nlohmann::ordered_json& object, bool colored,
                                      const std::set<std::string>& marked = {});

/// A value as the tree shows it: as JSON, long texts cut off, without the envelope of values that
/// are not of the usual kind.
[[nodiscard]] std::string value_text(const nlohmann::ordered_json& value);

/// A text of the server without quotation marks, control characters as escapes.
[[nodiscard]] std::string shown_text(const std::string& text);

}  // namespace cli
