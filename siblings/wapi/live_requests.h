// What the two live requests say: their parameters to records of the server, events of the server
// to events of a stream. Pure functions; docs/operating.md describes the interface for its users.
#pragma once

#include <cstdint>
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
    bool named_roots = false;  ///< the client named the roots, so they are to be checked
};

/// Reads `pattern`, `root` (any number; none: the root of the tree), `patches` and `interval`.
/// Throws what the readers of api.h throw.
[[nodiscard]] SubscribeRequest subscribe_request(const Request& request);

/// Reads `root`, `class` (any number; none: all), `operation` (likewise) and `own`. Throws as
/// above.
[[nodiscard]] dbms::Tql_Simple_Subscribe_Data events_request(const Request& request);

/// Asks which of the roots there are.
[[nodiscard]] dbms::Tql_Select_Data roots_request(const SubscribeRequest& request);
/// A root that is not among what was found; none if all are there.
[[nodiscard]] std::optional<tql::id_t> find_missing_root(const SubscribeRequest& request,
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
