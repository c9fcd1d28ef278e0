#include "tarmik/commands.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tarmik/assignments.h"
#include "tarmik/templates.h"
#include "tarmik/tree_view.h"
#include "tql/query_text.h"

namespace cli {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

std::string json_line(const ordered_json& answer) {
    return answer.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

/// The enumeration, else the type; empty if there is neither.
std::string kind_text(const ordered_json& entry) {
    return entry.value("enumeration", entry.value("type", ""));
}

void print_names(const Output& output, const ordered_json& answer, const char* list) {
    if (output.json) return output.print(json_line(answer));
    for (const ordered_json& entry : answer.at(list)) {
        std::string line = fmt::format("{:>6}  {}", entry.at("number").get<unsigned>(),
                                       entry.at("name").get<std::string>());
        if (const std::string kind = kind_text(entry); !kind.empty()) line += "  " + kind;
        if (entry.contains("classes"))
            for (const auto& [class_name, kind] : entry["classes"].items())
                line += fmt::format("  {}: {}", class_name, kind_text(kind));
        output.print(line + "\n");
    }
}

void add_value(json& values, const std::string& name, json value) {
    if (values.contains(name))
        throw CommandError(kUsage, fmt::format("Property {} is given twice", name));
    values[name] = std::move(value);
}

/// The assignments, and what the options say of inheritance.
json read_values(const ChangeArguments& arguments) {
    json values = read_assignments(arguments.assignments);
    if (arguments.inherits) add_value(values, "inherits", *arguments.inherits);
    for (const std::string& name : arguments.reset) add_value(values, name, {{"inherit", true}});
    return values;
}

void remark_ignored(const Output& output, const ordered_json& answer) {
    if (answer.contains("ignored_properties"))
        output.remark("Some properties were ignored: the class does not have them\n");
}

}  // namespace

void check_pattern(const std::string& pattern) {
    try {
        (void)tql::parse_pattern(pattern);
    } catch (const tql::query_text_error& wrong) {
        std::string text = wrong.text();
        if (pattern.find('\n') == pattern.npos && pattern.size() <= 200)
            text += fmt::format("\n  {}\n  {:>{}}", pattern, '^', wrong.column());
        throw CommandError(kUsage, text);
    }
}

void Commands::select(const SelectArguments& arguments) {
    check_pattern(arguments.pattern);
    json body{{"pattern", arguments.pattern}};
    if (!arguments.roots.empty()) body["roots"] = arguments.roots;
    const ordered_json answer = api_.post("/api/v1/select", body);
    if (output_.json) return output_.print(json_line(answer));
    const ordered_json& results = answer.at("results");
    if (results.empty()) output_.remark("Nothing matched\n");
    output_.print(tree_text(results, output_.colored));
}

void Commands::templates(const TemplatesArguments& arguments) {
    const ordered_json answer = ask_templates(api_, arguments.parent, arguments.class_name);
    if (output_.json) return output_.print(json_line(answer));
    const std::string text = templates_text(answer, !arguments.class_name.empty());
    if (text.empty()) output_.remark("There are no templates here\n");
    output_.print(text);
}

void Commands::create(const ChangeArguments& arguments) {
    const json given = read_values(arguments);
    json values = json::object();
    if (arguments.template_name)
        values = template_values(ask_templates(api_, arguments.parent, arguments.class_name),
                                 *arguments.template_name);
    values.update(given);
    json body{{"class", arguments.class_name},
              {"parent", arguments.parent},
              {"properties", std::move(values)}};
    if (!arguments.id.empty()) body["id"] = arguments.id;
    if (arguments.ignore_unknown) body["ignore_unknown"] = true;
    const ordered_json answer = api_.post("/api/v1/create", body);
    remark_ignored(output_, answer);
    output_.print(output_.json ? json_line(answer) : answer.at("id").get<std::string>() + "\n");
}

void Commands::update(const ChangeArguments& arguments) {
    json body{{"id", arguments.id}, {"properties", read_values(arguments)}};
    if (arguments.version) body["version"] = *arguments.version;
    if (arguments.ignore_unknown) body["ignore_unknown"] = true;
    const ordered_json answer = api_.post("/api/v1/update", body);
    remark_ignored(output_, answer);
    output_.print(output_.json ? json_line(answer)
                               : answer.at("version").get<std::string>() + "\n");
}

void Commands::remove(const ChangeArguments& arguments) {
    json body{{"id", arguments.id}};
    if (arguments.version) body["version"] = *arguments.version;
    const ordered_json answer = api_.post("/api/v1/delete", body);
    if (output_.json) output_.print(json_line(answer));
}

void Commands::classes() {
    print_names(output_, api_.get("/api/v1/classes"), "classes");
}

void Commands::properties() {
    print_names(output_, api_.get("/api/v1/properties"), "properties");
}

}  // namespace cli
