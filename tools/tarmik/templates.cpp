#include "tarmik/templates.h"

#include <fmt/format.h>
#include <functional>
#include <nlohmann/json.hpp>

#include "tarmik/tree_view.h"
#include "tql/errors.h"
#include "tql/names.h"

namespace cli {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

/// A text among the values; empty when there is none.
std::string text_of(const ordered_json& node, const char* property) {
    const auto found = node.at("properties").find(property);
    return found != node["properties"].end() && found->is_string() ? found->get<std::string>() : "";
}

/// Calls `visit` with each template and its number within its class.
void for_each_template(const ordered_json& answer,
                       const std::function<void(const ordered_json&, unsigned)>& visit) {
    const ordered_json& place = answer.at("results").at(0);
    const auto children = place.find("children");
    if (children == place.end()) return;
    std::string last_class;
    unsigned number = 0;
    for (const ordered_json& node : *children) {
        const std::string name = node.at("class").get<std::string>();
        number = name == last_class ? number + 1 : 1;
        last_class = name;
        visit(node, number);
    }
}

}  // namespace

ordered_json ask_templates(Api& api, const std::string& parent, const std::string& class_name) {
    std::string wanted = ".";
    try {
        if (!class_name.empty()) wanted = tql::class_name(tql::get_class(class_name));
    } catch (const errors::tql& unknown) {
        throw CommandError(kUsage, unknown.text());
    }
    ordered_json answer = api.post("/api/v1/select", {{"pattern", fmt::format(".$ > {}#!", wanted)},
                                                      {"roots", json::array({parent})}});
    if (answer.at("results").empty())
        throw CommandError(kRefused, fmt::format("There is no object {}", parent));
    return answer;
}

std::string templates_text(const ordered_json& answer, bool with_values) {
    std::string text;
    for_each_template(answer, [&](const ordered_json& node, unsigned number) {
        text += fmt::format("{} {}  {}\n", node["class"].get<std::string>(), number,
                            shown_text(text_of(node, "treeLabel")));
        if (!with_values) return;
        for (const ordered_json& name : node.at("settable")) {
            const auto property = name.get<std::string>();
            text += fmt::format("  {}={}\n", property, value_text(node["properties"][property]));
        }
    });
    return text;
}

json template_values(const ordered_json& answer, const std::string& wanted) {
    // What is said first wins: a name over a label, a label over a number.
    std::vector<const ordered_json*> by_name, by_label, by_number;
    for_each_template(answer, [&](const ordered_json& node, unsigned number) {
        if (text_of(node, "siblingName") == wanted) by_name.push_back(&node);
        if (text_of(node, "treeLabel") == wanted) by_label.push_back(&node);
        if (std::to_string(number) == wanted) by_number.push_back(&node);
    });
    const auto& found = !by_name.empty() ? by_name : !by_label.empty() ? by_label : by_number;
    if (found.size() != 1) {
        const std::string there = templates_text(answer, false);
        throw CommandError(kUsage, fmt::format("{} template \"{}\" here{}{}",
                                               found.empty() ? "There is no" : "More than one",
                                               wanted, there.empty() ? "" : "; there are:\n",
                                               there.substr(0, there.find_last_of('\n'))));
    }
    json values = json::object();
    for (const ordered_json& name : found[0]->at("settable")) {
        const auto property = name.get<std::string>();
        values[property] = json(found[0]->at("properties").at(property));
    }
    return values;
}

}  // namespace cli
