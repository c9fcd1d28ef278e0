// What the two live requests say: their parameters to records of the server, events of the server
// to events of a stream. Pure functions; docs/operating.md describes the interface for its users.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>

#include "queues/records/dbms_tql.h"
#include "wapi/endpoint.h"
#include "wapi/patch_plan.h"

namespace wapi {

/// A pattern to be kept up to date.
struct SubscribeRequest {
    dbms::Tql_Select_Data record;
    /// None: full results only.
    std::optional<PatchPlan> plan;
    /// Those that the client named, which are to be checked.
    std::list<tql::id_t> named_roots;
};

/// Reads `pattern`, `root` (any number; none: the root of the tree), `patches` and `interval`.
/// Throws what the readers of api.h throw.
[[nodiscard]] SubscribeRequest subscribe_request(const Request& request);

/// Operations to be told.
struct EventsRequest {
    dbms::Tql_Simple_Subscribe_Data record;
    std::list<tql::id_t> named_roots;  ///< as above; one at most
};

/// Reads `root`, `class` (any number; none: all), `operation` (likewise) and `own`. Throws as
/// above.
[[nodiscard]] EventsRequest events_request(const Request& request);

/// Asks which of the roots there are.
[[nodiscard]] dbms::Tql_Select_Data roots_request(std::list<tql::id_t> roots);
/// A root that is not among what was found; none if all are there.
[[nodiscard]] std::optional<tql::id_t> find_missing_root(const std::list<tql::id_t>& roots,
                                                         const dbms::Return_Tql_Select_Data& found);

/// An event of a stream as the client reads it: name, number, and data in JSON.
[[nodiscard]] std::string stream_event(std::string_view name, uint64_t number,
                                       std::string_view data);

/// The data of the events, JSON on one line. Throw Refused for results that are too deep.
[[nodiscard]] std::string result_data(const dbms::Return_Tql_Select_Data& returned,
                                      const std::optional<PatchPlan>& plan);
[[nodiscard]] std::string patch_data(const dbms::Return_Tql_Select_Patch_Data& patch);
[[nodiscard]] std::string delete_data(const dbms::Return_Tql_Select_Delete_Patch_Data& patch);
[[nodiscard]] std::string operation_data(const dbms::Return_Tql_Simple_Subscribe_Data& told);
[[nodiscard]] std::string missed_data(uint64_t count);

}  // namespace wapi
