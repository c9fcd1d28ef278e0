#include "tarmik/assignments.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tarmik/api_client.h"

namespace cli {

nlohmann::json read_assignments(const std::vector<std::string>& arguments) {
    nlohmann::json values = nlohmann::json::object();
    for (const std::string& argument : arguments) {
        const size_t equals = argument.find('=');
        const bool is_json = equals != argument.npos && equals > 0 && argument[equals - 1] == ':';
        const std::string name =
            equals == argument.npos ? "" : argument.substr(0, is_json ? equals - 1 : equals);
        if (name.empty())
            throw CommandError(kUsage,
                               fmt::format("\"{}\": expected name=value or name:=JSON", argument));
        if (values.contains(name))
            throw CommandError(kUsage, fmt::format("Property {} is given twice", name));
        const std::string text = argument.substr(equals + 1);
        if (!is_json) {
            values[name] = text;
            continue;
        }
        nlohmann::json value = nlohmann::json::parse(text, nullptr, false);
        if (value.is_discarded())
            throw CommandError(kUsage, fmt::format("{}:=: \"{}\" is not JSON", name, text));
        values[name] = std::move(value);
    }
    return values;
}

}  // namespace cli
