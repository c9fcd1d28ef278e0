// The records of a time series as lines and as a small graph of letters.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace cli {

/// One line for each record of the gateway's answer, below the names and units of the columns. Text
/// of the server has its control characters escaped.
[[nodiscard]] std::string series_table(const nlohmann::ordered_json& answer);

struct GraphSize {
    size_t columns = 64;
    size_t rows = 12;
};
/// Measured values over time: "o" at the average of each span of time and ":" from its least to its
/// greatest value; of an enumeration, a line for each state, with "#" where it was seen. Empty for
/// a series that has neither, as one of incidents, and for no records. Each line fits into `size`
/// and the legend left of it.
[[nodiscard]] std::string series_graph(const nlohmann::ordered_json& answer, GraphSize size = {});

}  // namespace cli
