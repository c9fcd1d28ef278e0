// What the HTTP interface says: request bodies to records of the server, answers of the server to
// response bodies. Pure functions; nothing here knows connections or processes. docs/operating.md
// describes the interface for its users.
//
// A failed request gets {"error": {"code": 3, "name": "ERR_VERSION", "text": "...", "details":
// [...]}}. The code is null where the gateway itself refused; the name says why then.
#pragma once

#include <cstdint>
#include <exception>
#include <list>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "error/exception.h"
#include "queues/event_types.h"
#include "queues/records/dbms_tql.h"

namespace wapi {

struct Response {
    unsigned status = 200;  ///< of HTTP
    std::string body;
    std::string content_type = "application/json";
    bool ends_connection = false;
};

/// The gateway refuses a request by itself.
class Refused : public error::Exception {
  public:
    /// `name` is one word in capitals.
    Refused(unsigned http_status, std::string_view name, std::string text)
        : Exception(std::move(text)), status_(http_status), name_(name) {}

    [[nodiscard]] unsigned status() const noexcept { return status_; }
    [[nodiscard]] const std::string& name() const noexcept { return name_; }

  private:
    unsigned status_;
    std::string name_;
};

/// 503, for what may work when it is tried again.
[[nodiscard]] inline Refused unavailable(std::string_view text) {
    return Refused(503, "UNAVAILABLE", std::string(text));
}

/// Where a request begins that names no other root.
inline const tql::id_t kRootId{0, 1};

/// Lists and objects of a request may stand this deep inside each other.
inline constexpr int kMaxJsonDepth = 32;

/// The object that a body holds. Throws Refused for anything else and for deeper nesting; costs
/// time and memory in proportion to the body.
[[nodiscard]] nlohmann::json parse_body(std::string_view body);

/// The readers of requests throw Refused for a missing, unknown or wrong field, errors::tql for
/// names and values, tql::query_text_error for the pattern.
[[nodiscard]] dbms::Tql_Select_Data select_request(const nlohmann::json& body);
[[nodiscard]] dbms::Tql_Create_Data create_request(const nlohmann::json& body);
/// What references in a node class mean to an object, or to one that is yet to be created.
[[nodiscard]] dbms::NodeClass_Translate_Data translate_request(const nlohmann::json& body);

/// Levels of loggers to set. Takes the texts of the levels.
struct LogLevelRequest {
    std::map<std::string, uint32_t> levels;  ///< by logger; "*" for all
    /// The process whose loggers are meant; none: the server and the gateway.
    std::optional<queues::queue_t> process;
};
[[nodiscard]] LogLevelRequest log_level_request(const nlohmann::json& body);

/// A change of an object. Where the sender told no version, that of the record is to be the
/// object's present one.
template <class Record>
struct ChangeRequest {
    Record record;
    bool has_version = false;
    /// False: the values weren't read, as it takes the object's class to do so.
    bool has_properties = true;
};
[[nodiscard]] ChangeRequest<dbms::Tql_Update_Data> update_request(
    const nlohmann::json& body, std::optional<uint32_t> class_number = {});
[[nodiscard]] ChangeRequest<dbms::Tql_Delete_Data> delete_request(const nlohmann::json& body);
/// Asks for the object alone, without properties: class and version are in the answer. A pattern
/// matches either templates or all the others, so it takes two requests to find any object.
[[nodiscard]] dbms::Tql_Select_Data lookup_request(const tql::id_t& id, bool is_template);

[[nodiscard]] Response answer(const dbms::Return_Tql_Select_Data& returned);
[[nodiscard]] Response answer(const dbms::Return_Tql_Create_Data& returned);
[[nodiscard]] Response answer(const dbms::Return_Tql_Update_Data& returned, const tql::id_t& id);
[[nodiscard]] Response answer(const dbms::Return_Tql_Delete_Data& returned, const tql::id_t& id);
[[nodiscard]] Response answer(const dbms::Return_Tql_Class_Names_Data& returned);
[[nodiscard]] Response answer(const dbms::Return_Tql_Property_Names_Data& returned);
[[nodiscard]] Response answer(const dbms::Return_NodeClass_Translate_Data& returned);
/// Of a server that is up.
[[nodiscard]] Response healthy();

/// The HTTP status for a query error code: 404 for a missing object, 409 for a stale version and an
/// existing key, 403 for a denied access, 500 for a broken store and unknown codes, else 400.
[[nodiscard]] unsigned http_status(uint32_t code) noexcept;

/// A refusal by the server. The first detail is its text.
[[nodiscard]] Response refusal(uint32_t code, const std::list<dbms::detail_t>& details);
/// A refusal by the gateway.
[[nodiscard]] Response refusal(const Refused& refused);
/// As above for everything that the readers of requests throw; other exceptions give status 500.
[[nodiscard]] Response refusal(const error::Exception& thrown);

}  // namespace wapi
