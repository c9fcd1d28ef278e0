// The way out: records to bodies.
#include <nlohmann/json.hpp>

#include "tql/enumerations.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/query_text.h"
#include "tql/value_kind.h"
#include "wapi/api.h"
#include "wapi/result_json.h"

namespace wapi {

namespace {

using nlohmann::ordered_json;

constexpr uint32_t kIgnoredSomething = 16;  // status of a create or update that worked

Response respond(unsigned status, const ordered_json& body) {
    return {status, body.dump(-1, ' ', false, ordered_json::error_handler_t::replace)};
}

Response refuse(unsigned status, const ordered_json& code, std::string_view name,
                std::string_view text, ordered_json details = ordered_json::array()) {
    ordered_json error;
    error["code"] = code;
    error["name"] = name;
    error["text"] = text;
    error["details"] = std::move(details);
    return respond(status, {{"error", std::move(error)}});
}

/// The answer to a create or update that came out with `status`.
template <class Record>
Response changed(const Record& returned, const tql::id_t& id) {
    if (returned.status != 0 && returned.status != kIgnoredSomething)
        return refusal(returned.status, returned.details);
    ordered_json body;
    body["id"] = id.to_string();
    body["version"] = version_text(returned.new_version);
    if (returned.status == kIgnoredSomething) body["ignored_properties"] = true;
    return respond(200, body);
}

}  // namespace

Response answer(const dbms::Return_Tql_Select_Data& returned) {
    if (returned.status != 0) return refusal(returned.status, returned.details);
    ordered_json results = ordered_json::array();
    try {
        for (const tql::result_t& node : returned.res) results.push_back(result_to_json(node));
    } catch (const Refused& too_deep) {
        return refusal(too_deep);
    }
    return respond(200, {{"results", std::move(results)}});
}

Response answer(const dbms::Return_Tql_Create_Data& returned) {
    return changed(returned, returned.new_id);
}

Response answer(const dbms::Return_Tql_Update_Data& returned, const tql::id_t& id) {
    return changed(returned, id);
}

Response answer(const dbms::Return_Tql_Delete_Data& returned, const tql::id_t& id) {
    if (returned.status != 0) return refusal(returned.status, returned.details);
    return respond(200, {{"id", id.to_string()}});
}

Response answer(const dbms::Return_Tql_Class_Names_Data& returned) {
    ordered_json classes = ordered_json::array();
    uint32_t number = 0;
    for (const std::string& name : returned.names) {
        if (!name.empty()) classes.push_back({{"number", number}, {"name", name}});
        ++number;
    }
    return respond(200, {{"classes", std::move(classes)}});
}

namespace {

void add_kind(ordered_json& entry, tql::value_kind_t kind) {
    if (kind.type == tql::property_type_t::none) return;
    entry["type"] = tql::kind_word(kind);
    const auto* enumeration = tql::find_enumeration(kind.enumeration);
    if (kind.type == tql::property_type_t::enum_ && enumeration != nullptr)
        entry["enumeration"] = enumeration->name;
}

}  // namespace

Response answer(const dbms::Return_NodeClass_Translate_Data& returned) {
    ordered_json references = ordered_json::array();
    for (const dbms::path_step_t& step : returned.ids) {
        ordered_json id = step.id.empty() ? ordered_json() : ordered_json(step.id.to_string());
        if (!step.inside)
            references.push_back({{"id", std::move(id)}, {"candidates", ordered_json::array()}});
        else if (!references.empty())
            references.back()["candidates"].push_back(std::move(id));
    }
    return respond(200, {{"references", std::move(references)}});
}

Response answer(const dbms::Return_Tql_Property_Names_Data& returned) {
    ordered_json properties = ordered_json::array();
    for (const dbms::property_name_t& known : returned.names) {
        ordered_json entry{{"number", known.property}, {"name", known.name}};
        add_kind(entry, tql::property_kind(cls::Any, known.property));
        for (const tql::class_kind_row_t& row : tql::class_kinds(known.property))
            add_kind(entry["classes"][std::string(tql::find_class_name(row.class_number))],
                     row.kind);
        properties.push_back(std::move(entry));
    }
    return respond(200, {{"properties", std::move(properties)}});
}

Response healthy() {
    return respond(200, {{"status", "up"}});
}

unsigned http_status(uint32_t code) noexcept {
    if (errors::tql_code_name(code).empty()) return 500;
    switch (code) {
        case errors::ERR_SUCCESS:
            return 200;
        case errors::ERR_NO_SUCH_ID:
            return 404;
        case errors::ERR_VERSION:
        case errors::ERR_EXISTS:
            return 409;
        case errors::ERR_ACCESS_DENIED:
            return 403;
        case errors::ERR_BACKEND:
            return 500;
        default:
            return 400;
    }
}

Response refusal(uint32_t code, const std::list<dbms::detail_t>& details) {
    ordered_json others = ordered_json::array();
    std::string_view text = errors::tql_code_text(code);
    if (!details.empty()) {
        if (!details.front().msg.empty()) text = details.front().msg;
        for (auto detail = std::next(details.begin()); detail != details.end(); ++detail)
            others.push_back({{"type", detail->msg_type}, {"text", detail->msg}});
    }
    return refuse(http_status(code), code, errors::tql_code_name(code), text, std::move(others));
}

Response refusal(const Refused& refused) {
    return refuse(refused.status(), nullptr, refused.name(), refused.text());
}

Response refusal(const error::Exception& thrown) {
    if (const auto* refused = dynamic_cast<const Refused*>(&thrown)) return refusal(*refused);
    if (const auto* wrong = dynamic_cast<const tql::query_text_error*>(&thrown)) {
        const ordered_json place{
            {"line", wrong->line()}, {"column", wrong->column()}, {"text", wrong->message()}};
        return refuse(400, nullptr, "BAD_PATTERN", wrong->text(), ordered_json::array({place}));
    }
    if (const auto* failed = dynamic_cast<const errors::tql*>(&thrown)) {
        std::list<dbms::detail_t> details{{.msg_type = 3, .msg = failed->text()}};
        for (const auto& added : failed->details())
            details.push_back({.msg_type = added.msg_type, .msg = added.msg});
        return refusal(failed->code(), details);
    }
    return refuse(500, nullptr, "FAILED", thrown.text());
}

}  // namespace wapi
