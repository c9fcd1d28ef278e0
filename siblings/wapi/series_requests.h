// What requests for time series say: parameters and bodies to records of the server, its data to
// bodies. Pure functions; docs/operating.md describes the interface for its users.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "queues/records/dbms_tql.h"
#include "queues/records/dbms_tsdb.h"
#include "wapi/endpoint.h"

namespace wapi {

inline constexpr std::string_view kSeriesPath = "/api/v1/series/";

/// Records of one answer, and of one request to append.
inline constexpr uint32_t kMostSeriesRecords = 20'000;
inline constexpr uint32_t kUsualSeriesRecords = 500;
inline constexpr size_t kMostAppended = 1'000;

/// A series and what is wanted of it: records to read, or records to append.
struct SeriesRequest {
    tql::id_t id;
    uint32_t property = 0;
    int64_t from = 0;  ///< seconds since the epoch, inclusive; 0 for an open end, as `to`
    int64_t to = 0;
    uint32_t count = kUsualSeriesRecords;
    uint32_t resolution_s = 0;
    /// Engaged for an append: at least one object for each record, not looked into.
    std::optional<nlohmann::json> appended;
};

/// Seconds since the epoch: a date as values have it, "2026-11-23T13:00:00Z" for one, plain
/// seconds, "now", or a time before now as "-1d", in s, m, h, d or w. None for another text.
[[nodiscard]] std::optional<int64_t> read_moment(std::string_view text, int64_t now_s);

/// Reads a GET or POST. Throws what the readers of api.h throw.
[[nodiscard]] SeriesRequest series_request(const Request& request, int64_t now_s);

/// Asks for the object with the index of the series, its unit and its label.
[[nodiscard]] dbms::Tql_Select_Data series_object_request(const SeriesRequest& wanted);

/// Whether there is a series yet. Throws Refused or errors::tql when the object isn't there or
/// hasn't such a property.
[[nodiscard]] bool has_series(const SeriesRequest& wanted,
                              const dbms::Return_Tql_Select_Data& found);
/// Throws Refused: there is no series yet.
[[noreturn]] void refuse_empty(const SeriesRequest& wanted);

[[nodiscard]] dbms::TSDB_Get_Data_Data series_data_request(const SeriesRequest& wanted);
[[nodiscard]] dbms::TSDB_Get_Latest_Data_Record_Data series_type_request(
    const SeriesRequest& wanted);
/// The type of data that the first record makes a series for; none where the property doesn't say.
[[nodiscard]] std::optional<uint32_t> type_of_first_data(uint32_t property);
/// Throws Refused for a record that isn't one of this type.
[[nodiscard]] dbms::TSDB_Append_Data_Data series_append_request(const SeriesRequest& wanted,
                                                                uint32_t data_type, int64_t now_s);

/// `object` is the node that was found, or its copy.
[[nodiscard]] Response answer(const SeriesRequest& wanted, const tql::result_t& object,
                              dbms::Return_TSDB_Get_Data_Data returned);
[[nodiscard]] Response answer_append(const SeriesRequest& wanted);

}  // namespace wapi
