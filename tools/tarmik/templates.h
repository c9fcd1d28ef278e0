// Templates: objects that the server suggests to create under another one, with their values.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tarmik/api_client.h"

namespace cli {

/// The gateway's answer with the templates under `parent`, those of one class or, for an empty
/// name, all. Throws CommandError for an unknown class or parent.
[[nodiscard]] nlohmann::ordered_json ask_templates(Api& api, const std::string& parent,
                                                   const std::string& class_name);

/// One line for each template of such an answer, numbered within its class; `with_values` adds a
/// line for each value that a create takes.
[[nodiscard]] std::string templates_text(const nlohmann::ordered_json& answer, bool with_values);

/// The values to create an object with, of the template of such an answer for one class that
/// `wanted` names: by its name among siblings, its label, or its number. Throws CommandError with
/// the list of what there is, for none and for more than one of that name.
[[nodiscard]] nlohmann::json template_values(const nlohmann::ordered_json& answer,
                                             const std::string& wanted);

}  // namespace cli
