// Metrics for other programs: the text format of Prometheus, and JSON.
//
// The path of a metric makes its name, "journal/commits" is tarmik_journal_commits_total, and each
// table on the way a label: "event/proc/wapi/time" is tarmik_event_proc_time_us{proc="wapi"}. A
// unit stands at the end of the name. A timing is a summary with _count and _sum, and _min, _max
// and _sum_of_squares beside it.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "queues/records/control.h"
#include "wapi/api.h"

namespace wapi {

/// One metric, of one instance of each table above it.
struct MetricSample {
    std::list<std::string> path{};  ///< with the instances
    std::string family{};           ///< the path without them, joined by "_"
    /// Tables and their instances.
    std::vector<std::pair<std::string, std::string>> labels{};
    control::Metric metric{};
    /// None while it isn't known, and for an instance that doesn't exist.
    std::optional<std::variant<uint64_t, double, control::Return_Metric_Timing_Data>> value{};

    [[nodiscard]] std::string path_text() const;
};

/// All metrics of a tree, without values.
[[nodiscard]] std::vector<MetricSample> expand(const control::Metric_Group& root);

/// Whether the sample stands at `path`, as "event/proc", or below it; the empty path has all.
[[nodiscard]] bool is_below(const MetricSample& sample, std::string_view path);

/// The samples that have values.
[[nodiscard]] Response prometheus(const std::vector<MetricSample>& samples);
[[nodiscard]] Response metrics_json(const std::vector<MetricSample>& samples);

}  // namespace wapi
