// `series`: what a time series holds.
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tarmik/commands.h"
#include "tarmik/series_view.h"
#include "tarmik/tree_view.h"

namespace cli {

namespace {

using nlohmann::ordered_json;

std::string text_of(const ordered_json& answer, const char* field) {
    return shown_text(answer.at(field).get<std::string>());
}

}  // namespace

void Commands::series(const SeriesArguments& arguments) {
    Parameters parameters;
    for (const auto& [name, value] : {std::pair{"property", &arguments.property},
                                      {"from", &arguments.from},
                                      {"to", &arguments.to},
                                      {"count", &arguments.count},
                                      {"resolution", &arguments.resolution}})
        if (!value->empty()) parameters.emplace_back(name, *value);
    const ordered_json answer =
        api_.get(path_with("/api/v1/series/" + path_part(arguments.id), parameters));
    if (output_.json)
        return output_.print(answer.dump(2, ' ', false, ordered_json::error_handler_t::replace) +
                             "\n");
    if (answer.at("records").empty()) return output_.remark("No records in this range\n");
    output_.print(fmt::format("{}: {}, {}\n", text_of(answer, "label"), text_of(answer, "property"),
                              text_of(answer.at("layout"), "type")));
    const std::string graph = arguments.graph ? series_graph(answer) : std::string();
    output_.print(graph.empty() ? series_table(answer) : graph);
    if (answer.at("more").get<bool>())
        output_.remark("There are older records in this range; --count asks for more\n");
}

}  // namespace cli
