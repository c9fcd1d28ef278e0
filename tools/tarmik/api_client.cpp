#include "tarmik/api_client.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace cli {

namespace {

using nlohmann::ordered_json;

constexpr int kUnavailable = 503;
constexpr int kNoAnswerInTime = 504;

std::string text_of(const ordered_json& object, const char* field) {
    const auto found = object.find(field);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace

std::string path_part(std::string_view text) {
    std::string encoded;
    for (const char sign : text) {
        const bool stays = (sign >= 'a' && sign <= 'z') || (sign >= 'A' && sign <= 'Z') ||
                           (sign >= '0' && sign <= '9') ||
                           std::string_view("/._-~").find(sign) != std::string_view::npos;
        encoded +=
            stays ? std::string(1, sign) : fmt::format("%{:02X}", static_cast<unsigned char>(sign));
    }
    return encoded;
}

ordered_json read_answer(int http_status, const std::string& body) {
    ordered_json answer = ordered_json::parse(body, nullptr, false);
    if (http_status == 200 && answer.is_object()) return answer;
    const bool has_error =
        answer.is_object() && answer.contains("error") && answer["error"].is_object();
    if (!has_error)
        throw CommandError(
            kFailed, fmt::format("The answer is not that of a gateway (status {})", http_status));
    const ordered_json& error = answer["error"];
    const std::string name = text_of(error, "name");
    const std::string message = text_of(error, "text");
    if (http_status == kUnavailable || http_status == kNoAnswerInTime)
        throw CommandError(kNotReachable, message);
    std::string whole = message;
    const auto code = error.find("code");
    if (code != error.end() && code->is_number_unsigned())
        whole = fmt::format("{} (code {}, {})", message, code->get<unsigned>(), name);
    if (const auto details = error.find("details"); details != error.end() && details->is_array())
        for (const ordered_json& detail : *details)
            if (const std::string text = detail.is_object() ? text_of(detail, "text") : "";
                !text.empty() && message.find(text) == message.npos)
                whole += "\n  " + text;
    throw ServerRefusal(name == "ERR_VERSION" ? kVersionConflict : kRefused, name, message, whole);
}

}  // namespace cli
