#include "wapi/live_requests.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "tql/names.h"
#include "tql/query_text.h"
#include "wapi/parameters.h"
#include "wapi/result_json.h"

namespace wapi {

namespace {

using nlohmann::ordered_json;

constexpr uint32_t kSubscribe = 1;  // flags of a select
constexpr uint32_t kAwaitAcknowledge = 4;
constexpr uint32_t kPatchable = 16;
constexpr uint64_t kMaxInterval_s = 86'400;

/// By number.
constexpr std::array<std::string_view, 5> kOperationNames = {"created", "updated", "deleted",
                                                             "data", "checkin"};

bool read_flag(const Request& request, std::string_view name, bool usual) {
    const auto text = find_parameter(request, name);
    if (!text) return usual;
    if (*text != "0" && *text != "1")
        refuse_parameter(
            fmt::format("Parameter \"{}\": \"{}\" is neither 0 nor 1", name, shown_part(*text)));
    return *text == "1";
}

uint64_t read_interval(const Request& request) {
    return find_number(request, "interval", kMaxInterval_s, "number of seconds").value_or(0);
}

tql::id_t read_root(std::string_view text) {
    const auto id = tql::id_t::parse(text);
    if (!id || id->size() < 2)
        refuse_parameter(
            fmt::format("Parameter \"root\": \"{}\" is no id, expected one like 1.4294960001",
                        shown_part(text)));
    return *id;
}

uint32_t read_operation(const std::string& text) {
    const auto* found = std::find(kOperationNames.begin(), kOperationNames.end(), text);
    if (found == kOperationNames.end())
        refuse_parameter(fmt::format("Parameter \"operation\": \"{}\" is none of {}",
                                     shown_part(text), fmt::join(kOperationNames, ", ")));
    return static_cast<uint32_t>(found - kOperationNames.begin());
}

std::string line(const ordered_json& data) {
    return data.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

ordered_json plan_to_json(const PatchPlan& plan) {
    ordered_json classes = ordered_json::object();
    for (const auto& [class_number, keepers] : plan.kept_by) {
        ordered_json& names = classes[tql::class_name(class_number)] = ordered_json::array();
        for (const uint32_t keeper : keepers) names.push_back(tql::class_name(keeper));
    }
    return classes;
}

}  // namespace

SubscribeRequest subscribe_request(const Request& request) {
    allow_parameters(request, {"pattern", "root", "patches", "interval"});
    const auto pattern = find_parameter(request, "pattern");
    if (!pattern) refuse_parameter("Parameter \"pattern\" is missing");
    SubscribeRequest wanted;
    wanted.record.pattern = tql::parse_pattern(*pattern);
    const std::vector<std::string> roots = find_parameters(request, "root");
    for (const std::string& root : roots) {
        const tql::id_t id = read_root(root);
        auto& ids = wanted.record.root_ids;
        if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
    }
    wanted.named_roots = wanted.record.root_ids;
    if (roots.empty()) wanted.record.root_ids.push_back(kRootId);
    if (read_flag(request, "patches", false))
        wanted.plan = make_patch_plan(wanted.record.pattern, wanted.record.root_ids.size());
    wanted.record.min_eval_interval = read_interval(request);
    wanted.record.flags = kSubscribe | (wanted.plan ? kPatchable : kAwaitAcknowledge);
    return wanted;
}

EventsRequest events_request(const Request& request) {
    allow_parameters(request, {"root", "class", "operation", "own"});
    EventsRequest wanted;
    dbms::Tql_Simple_Subscribe_Data& record = wanted.record;
    record.root = kRootId;
    if (const auto root = find_parameter(request, "root")) {
        record.root = read_root(*root);
        wanted.named_roots.push_back(record.root);
    }
    for (const std::string& name : find_parameters(request, "class"))
        record.classes.insert(tql::get_class(name));
    if (record.classes.empty()) record.classes.insert(tql::get_class("."));
    for (const std::string& name : find_parameters(request, "operation"))
        record.operations.insert(read_operation(name));
    if (record.operations.empty())
        for (uint32_t number = 0; number < kOperationNames.size(); ++number)
            record.operations.insert(number);
    // Whatever came in by HTTP is this process's own, so that leaving it out is the rarer wish.
    record.include_own_operations = read_flag(request, "own", true);
    return wanted;
}

dbms::Tql_Select_Data roots_request(std::list<tql::id_t> roots) {
    dbms::Tql_Select_Data record;
    record.root_ids = std::move(roots);
    record.pattern = tql::pattern_t(tql::get_class("."));
    return record;
}

std::optional<tql::id_t> find_missing_root(const std::list<tql::id_t>& roots,
                                           const dbms::Return_Tql_Select_Data& found) {
    for (const tql::id_t& root : roots)
        if (std::none_of(found.res.begin(), found.res.end(),
                         [&](const tql::result_t& node) { return node.id == root; }))
            return root;
    return std::nullopt;
}

std::string stream_event(std::string_view name, uint64_t number, std::string_view data) {
    return fmt::format("id: {}\nevent: {}\ndata: {}\n\n", number, name, data);
}

std::string result_data(const dbms::Return_Tql_Select_Data& returned,
                        const std::optional<PatchPlan>& plan) {
    ordered_json results = ordered_json::array();
    for (const tql::result_t& node : returned.res) results.push_back(result_to_json(node));
    ordered_json data;
    data["results"] = std::move(results);
    if (plan) data["kept_by"] = plan_to_json(*plan);
    return line(data);
}

std::string patch_data(const dbms::Return_Tql_Select_Patch_Data& patch) {
    ordered_json data;
    data["id"] = patch.id.to_string();
    data["patch"] = patch_to_json(patch.patch, patch.id);
    return line(data);
}

std::string delete_data(const dbms::Return_Tql_Select_Delete_Patch_Data& patch) {
    return line({{"id", patch.id.to_string()}});
}

std::string operation_data(const dbms::Return_Tql_Simple_Subscribe_Data& told) {
    ordered_json data;
    if (told.operation < kOperationNames.size())
        data["operation"] = kOperationNames[told.operation];
    else
        data["operation"] = told.operation;
    ordered_json path = ordered_json::array();
    for (const dbms::path_entry_t& entry : told.obj_path)
        path.push_back({{"id", entry.id.to_string()}, {"class", tql::class_name(entry.class_)}});
    if (!path.empty()) {
        data["id"] = path.front()["id"];
        data["class"] = path.front()["class"];
    }
    data["path"] = std::move(path);
    if (told.origin != tql::origin_t()) data["origin"] = origin_to_json(told.origin);
    return line(data);
}

std::string missed_data(uint64_t count) {
    return line({{"count", count}});
}

}  // namespace wapi
