// The commands that look into the running processes: metrics and levels of loggers.
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tarmik/commands.h"

namespace cli {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

std::string value_text(const ordered_json& metric) {
    const ordered_json& value = metric.at("value");
    const auto unit = metric.at("unit").get<std::string>();
    const std::string behind = unit.empty() ? "" : " " + unit;
    if (!value.is_object()) return value.dump() + behind;
    const auto count = value.at("count").get<uint64_t>();
    if (count == 0) return "never";
    const double average =
        static_cast<double>(value.at("sum").get<uint64_t>()) / static_cast<double>(count);
    return fmt::format("{} times, average {:.1f}{}, least {}, most {}", count, average, behind,
                       value.at("min").get<uint64_t>(), value.at("max").get<uint64_t>());
}

}  // namespace

void Commands::metrics(const std::string& path) {
    const ordered_json answer =
        api_.get(path.empty() ? "/api/v1/metrics" : "/api/v1/metrics/" + path_part(path));
    if (output_.json) return output_.print(answer.dump(2) + "\n");
    size_t width = 0;
    for (const ordered_json& metric : answer.at("metrics"))
        width = std::max(width, metric.at("path").get_ref<const std::string&>().size());
    for (const ordered_json& metric : answer.at("metrics"))
        output_.print(fmt::format("{:<{}}  {}\n", metric.at("path").get<std::string>(), width,
                                  value_text(metric)));
}

void Commands::log_level(const LogLevelArguments& arguments) {
    json body{{"levels", {{arguments.logger, arguments.level}}}};
    if (!arguments.process.empty()) body["process"] = arguments.process;
    const ordered_json answer = api_.post("/api/v1/log-levels", body);
    if (output_.json) output_.print(answer.dump(2) + "\n");
}

}  // namespace cli
