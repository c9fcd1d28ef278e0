// Failures of a query or write request that the client hears of by a numbered code and a text.
//
// These are answers, not accidents: the handler of a request turns them into the status and the
// details of its return event. A broken store is errors::db_anomaly (error/exception.h), reported
// as code 14.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "error/exception.h"
#include "tql/id.h"

namespace errors {

/// Query error codes as they travel in `status`. 13 is not used.
enum tql_code_t : uint32_t {
    ERR_SUCCESS = 0,
    ERR_NO_SUCH_ID = 1,
    ERR_NO_MATCH = 2,
    ERR_VERSION = 3,
    ERR_EXISTS = 4,
    ERR_ILLEGAL_CHILD = 5,
    ERR_MISSING_PROPERTY = 6,
    ERR_NO_SUCH_PROPERTY = 7,
    ERR_CONST_PROPERTY = 8,
    ERR_ILLEGAL_TYPE = 9,
    ERR_ILLEGAL_VALUE = 10,
    ERR_INCOMPARABLE = 11,
    ERR_NOT_IMPLEMENTED = 12,
    ERR_BACKEND = 14,
    ERR_ACCESS_DENIED = 15,
};

/// The text of a status code; "Unknown error" for a number that isn't a code.
[[nodiscard]] std::string_view tql_code_text(uint32_t code) noexcept;
/// The name of a status code, as "ERR_VERSION"; empty for a number that isn't a code.
[[nodiscard]] std::string_view tql_code_name(uint32_t code) noexcept;

/// A request failed. The text and the added details reach the client together with the code.
class tql : public error::Exception {
  public:
    struct added_detail_t {
        uint32_t msg_type = 0;
        std::string msg;
    };

    /// Ends the process by a fatal assertion for ERR_SUCCESS.
    tql(tql_code_t code, std::string text);

    [[nodiscard]] tql_code_t code() const noexcept { return code_; }

    /// Details beyond the text, in the order in which they were added.
    [[nodiscard]] const std::vector<added_detail_t>& details() const noexcept { return details_; }
    void add_detail(uint32_t msg_type, std::string msg) {
        details_.push_back({msg_type, std::move(msg)});
    }

  private:
    tql_code_t code_;
    std::vector<added_detail_t> details_;
};

/// Two values cannot be compared in the way asked for; code 11.
class tql_incomparable : public tql {
  public:
    explicit tql_incomparable(std::string text) : tql(ERR_INCOMPARABLE, std::move(text)) {}
};

/// Another object has the value that must be unique; code 4. Tells which object.
class tql_exists : public tql {
  public:
    tql_exists(const ::tql::id_t& existing, std::string text)
        : tql(ERR_EXISTS, std::move(text)), existing_(existing) {}

    [[nodiscard]] const ::tql::id_t& existing() const noexcept { return existing_; }

  private:
    ::tql::id_t existing_;
};

/// Thrown by the delete hook of an object that stays.
class tql_dont_delete : public error::Exception {
  public:
    tql_dont_delete() : Exception("ETqlDontDelete") {}
};

}  // namespace errors
