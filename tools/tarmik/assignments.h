// Property values as arguments: name=value is a text that the property's kind reads, as
// label="Test lab" or active=false; name:=JSON is JSON, for null and for values of another kind.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace cli {

inline constexpr const char* kAssignmentHelp =
    "name=value in the form of the property (label=\"Test lab\", active=false, lists a,b), or "
    "name:=JSON (label:=null)";

/// The object of values by name for the gateway. Throws CommandError with kUsage for anything else,
/// and for a name that stands twice.
[[nodiscard]] nlohmann::json read_assignments(const std::vector<std::string>& arguments);

}  // namespace cli
