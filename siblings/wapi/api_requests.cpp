// The way in: bodies to records.
#include <initializer_list>
#include <nlohmann/json.hpp>

#include "log/log.h"
#include "log/logger_names.h"
#include "tql/names.h"
#include "tql/query_text.h"
#include "wapi/api.h"
#include "wapi/endpoint.h"
#include "wapi/json_values.h"

namespace wapi {

namespace {

using nlohmann::json;

constexpr uint32_t kIgnoreUnknown = 8;  // flag of a create or update

[[noreturn]] void refuse(std::string text) {
    throw Refused(400, "BAD_REQUEST", std::move(text));
}

void allow_only(const json& body, std::initializer_list<std::string_view> fields) {
    for (const auto& [field, value] : body.items()) {
        if (std::find(fields.begin(), fields.end(), field) == fields.end())
            refuse(fmt::format("Unknown field \"{}\"", field));
    }
}

/// The text of a field; null if the field isn't there or is null.
const std::string* find_text(const json& body, const char* field) {
    const auto found = body.find(field);
    if (found == body.end() || found->is_null()) return nullptr;
    if (!found->is_string()) refuse(fmt::format("Field \"{}\" must be a text", field));
    return &found->get_ref<const std::string&>();
}

const std::string& get_text(const json& body, const char* field) {
    const std::string* found = find_text(body, field);
    if (found == nullptr) refuse(fmt::format("Field \"{}\" is missing", field));
    return *found;
}

tql::id_t read_id(std::string_view text, const char* field) {
    const auto id = tql::id_t::parse(text);
    if (!id || id->size() < 2)
        refuse(fmt::format("Field \"{}\": \"{}\" is no id, expected one like 1.4294960001", field,
                           text.substr(0, 60)));
    return *id;
}

tql::id_t get_id(const json& body, const char* field) {
    return read_id(get_text(body, field), field);
}

/// The id of a field; the empty one if the field isn't there.
tql::id_t find_id(const json& body, const char* field) {
    const std::string* text = find_text(body, field);
    return text == nullptr ? tql::id_t() : read_id(*text, field);
}

std::list<tql::id_t> get_ids(const json& body, const char* field) {
    const auto refuse_field = [&] {
        refuse(fmt::format("Field \"{}\" must be a list of ids", field));
    };
    const auto found = body.find(field);
    if (found == body.end() || !found->is_array()) refuse_field();
    std::list<tql::id_t> ids;
    for (const json& id : *found) {
        if (!id.is_string()) refuse_field();
        ids.push_back(read_id(id.get_ref<const std::string&>(), field));
    }
    return ids;
}

uint32_t get_flags(const json& body) {
    const auto found = body.find("ignore_unknown");
    if (found == body.end()) return 0;
    if (!found->is_boolean()) refuse("Field \"ignore_unknown\" must be true or false");
    return found->get<bool>() ? kIgnoreUnknown : 0;
}

/// The object of values by name; null if there is none.
const json* find_properties(const json& body) {
    const auto found = body.find("properties");
    if (found == body.end()) return nullptr;
    if (!found->is_object()) refuse("Field \"properties\" must be an object of values by name");
    return &*found;
}

std::vector<tql::value_t> get_properties(const json& body, uint32_t class_number) {
    const json* found = find_properties(body);
    return found == nullptr ? std::vector<tql::value_t>() : values_from_json(class_number, *found);
}

template <class Record>
void read_version(const json& body, ChangeRequest<Record>& into) {
    const std::string* text = find_text(body, "version");
    if (text == nullptr) return;
    const auto version = tql::version_t::parse(*text);
    if (!version)
        refuse(
            fmt::format("Field \"version\": \"{}\" is no version, expected two numbers joined "
                        "by a point",
                        text->substr(0, 60)));
    into.record.version = *version;
    into.has_version = true;
}

}  // namespace

void allow_method(const Request& request, std::string_view allowed) {
    if (request.method != allowed)
        throw Refused(
            405, "METHOD_NOT_ALLOWED",
            fmt::format("Method {} is not allowed here, use {}", request.method, allowed));
}

json parse_body(std::string_view body) {
    const auto within_depth = [](int depth, json::parse_event_t, json&) {
        if (depth > kMaxJsonDepth)
            refuse(fmt::format("The body is nested more than {} levels deep", kMaxJsonDepth));
        return true;
    };
    try {
        json parsed = json::parse(body, within_depth);
        if (!parsed.is_object()) refuse("The body must be a JSON object");
        return parsed;
    } catch (const json::exception& wrong) {
        // The library's texts begin with "[json.exception.parse_error.101] ".
        const std::string_view text = wrong.what();
        const size_t prefix = text.find("] ");
        refuse(fmt::format("The body is not JSON: {}",
                           prefix == text.npos ? text : text.substr(prefix + 2)));
    }
}

dbms::Tql_Select_Data select_request(const json& body) {
    allow_only(body, {"pattern", "roots"});
    dbms::Tql_Select_Data record;
    record.pattern = tql::parse_pattern(get_text(body, "pattern"));
    if (body.contains("roots"))
        record.root_ids = get_ids(body, "roots");
    else
        record.root_ids.push_back(kRootId);
    return record;
}

dbms::NodeClass_Translate_Data translate_request(const json& body) {
    allow_only(body, {"id", "parent", "inherits", "references"});
    dbms::NodeClass_Translate_Data record;
    record.id = find_id(body, "id");
    record.parent = find_id(body, "parent");
    if (record.id.empty() == record.parent.empty())
        refuse("One of the fields \"id\" and \"parent\" must be given");
    record.inherits = get_id(body, "inherits");
    record.references = get_ids(body, "references");
    return record;
}

namespace {

queues::queue_t get_process(const std::string& name) {
    for (int32_t number = 0; number <= static_cast<int32_t>(queues::queue_t::extra); ++number)
        if (const auto process = static_cast<queues::queue_t>(number);
            queues::queue_name(process) == name)
            return process;
    refuse(fmt::format("\"{}\" is no process", name.substr(0, 60)));
}

/// A process passes over a name that it doesn't know, which helps nobody who has mistyped it. What
/// loggers others than the server and the gateway have isn't known here.
void check_logger(const std::string& name, std::optional<queues::queue_t> process) {
    const auto is_meant = [&](queues::queue_t one) { return !process || *process == one; };
    const bool of_server = is_meant(queues::queue_t::dbms);
    const bool own = is_meant(queues::queue_t::wapi);
    const auto& of_servers = logging::kServerLoggers;
    const auto* const end = of_servers.end();
    if (name == "*" || (!of_server && !own && !name.empty())) return;
    if (of_server && std::find(of_servers.begin(), end, name) != end) return;
    if (own && logging::has_logger(name)) return;
    std::string there = of_server ? fmt::format("{}", fmt::join(of_servers, ", ")) : "";
    if (own) there += there.empty() ? "wapi" : " and wapi";
    refuse(fmt::format("There is no logger \"{}\"; there are * for all, {}", name.substr(0, 60),
                       there));
}

}  // namespace

LogLevelRequest log_level_request(const json& body) {
    allow_only(body, {"levels", "process"});
    const auto levels = body.find("levels");
    if (levels == body.end() || !levels->is_object() || levels->empty())
        refuse(
            "Field \"levels\" must be an object of levels by logger, as {\"dbcache\": \"debug\"}");
    LogLevelRequest request;
    for (const auto& [name, text] : levels->items()) {
        const auto level = text.is_string()
                               ? logging::find_level(text.get_ref<const std::string&>())
                               : std::nullopt;
        if (!level)
            refuse(
                fmt::format("{} is no level, expected trace, debug, info, warning, error, "
                            "critical or off",
                            text.dump(-1, ' ', true, json::error_handler_t::replace)));
        request.levels[name] = static_cast<uint32_t>(*level);
    }
    if (const std::string* process = find_text(body, "process"))
        request.process = get_process(*process);
    for (const auto& [name, level] : request.levels) check_logger(name, request.process);
    return request;
}

dbms::Tql_Create_Data create_request(const json& body) {
    allow_only(body, {"parent", "class", "properties", "id", "user", "ignore_unknown"});
    dbms::Tql_Create_Data record;
    record.parent_id = get_id(body, "parent");
    record.class_ = tql::get_class(get_text(body, "class"));
    record.new_id = find_id(body, "id");
    record.user_id = find_id(body, "user");
    record.flags = get_flags(body);
    record.properties = get_properties(body, record.class_);
    return record;
}

ChangeRequest<dbms::Tql_Update_Data> update_request(const json& body,
                                                    std::optional<uint32_t> class_number) {
    allow_only(body, {"id", "version", "properties", "user", "ignore_unknown"});
    ChangeRequest<dbms::Tql_Update_Data> request;
    request.record.id = get_id(body, "id");
    read_version(body, request);
    request.record.user_id = find_id(body, "user");
    request.record.flags = get_flags(body);
    const json* properties = find_properties(body);
    request.has_properties =
        class_number.has_value() || properties == nullptr || !depend_on_class(*properties);
    if (request.has_properties)
        request.record.properties = get_properties(body, class_number.value_or(cls::Any));
    return request;
}

ChangeRequest<dbms::Tql_Delete_Data> delete_request(const json& body) {
    allow_only(body, {"id", "version", "user"});
    ChangeRequest<dbms::Tql_Delete_Data> request;
    request.record.id = get_id(body, "id");
    read_version(body, request);
    request.record.user_id = find_id(body, "user");
    return request;
}

dbms::Tql_Select_Data lookup_request(const tql::id_t& id, bool is_template) {
    dbms::Tql_Select_Data record;
    record.root_ids.push_back(id);
    record.pattern = tql::pattern_t(tql::get_class("."), is_template ? tql::kPatternTemplates : 0);
    return record;
}

}  // namespace wapi
