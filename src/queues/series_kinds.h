// What the store of time series and those who ask it agree upon beyond the records of the events:
// the layouts of series, the types of data, the operations of PUT_DATA and the flags of GET_DATA.
#pragma once

#include <cstdint>

#include "queues/records/tsdb_records.h"

namespace tsdb {

/// What the points of a series mean to those who read them; it travels with each request.
enum data_type_t : uint32_t {
    kUptimeData = 2,
    kEnumeratedData = 3,
    kIncidentData = 4,
    kContinuousData = 5,
    kUptimeSumData = 6,
};

/// The five layouts there are. Those of measured values keep 7 days by the minute, 30 days by the
/// quarter of an hour, 60 by half an hour, 360 by the hour and 1080 by three hours; those of
/// incidents the last 102,400 and 1,048,576.
[[nodiscard]] const time_series_layout_t& continuous_layout();
[[nodiscard]] const time_series_layout_t& enumerated_layout();
[[nodiscard]] const time_series_layout_t& uptime_layout();
[[nodiscard]] const time_series_layout_t& small_incident_layout();
[[nodiscard]] const time_series_layout_t& large_incident_layout();

/// Stands for the index of a series where there is none yet.
inline constexpr uint32_t kNoSeries = 0xFFFFFFFF;

/// Put_Data_Data::operation. All are answered with RETURN_PUT_DATA_ALLOC and the index, or an
/// exception, when the data is durable.
enum put_operation_t : uint32_t {
    kStore = 2,
    /// Stores what isn't there yet.
    kMerge = 3,
    /// Where `handle` is no series for data of this type, makes one. Answered twice: when the
    /// series is there, and when the data is stored too. A failure before the first answer is the
    /// only one.
    kAllocateAndStore = 4,
};

/// Get_Data_Data::flags. `start` and `end` are inclusive, 0 for an open end. `count` is the most
/// records wanted, 0 for as many as one answer holds, behind the `offset` first ones of the range.
/// `raw` asks for the finest level, whatever it reaches back to. An answer is in the order of time.
inline constexpr uint32_t kFromNewest = 1;  ///< count and offset begin at the newest record
inline constexpr uint32_t kResolutionShift = 8;
inline constexpr uint32_t kMaxResolution_s = 0xFFFFFFFF >> kResolutionShift;
/// The coarsest level is wanted whose records span no more than `resolution_s`, at most
/// kMaxResolution_s; 0 for the finest one. If it doesn't reach back to `start`, a coarser one.
[[nodiscard]] constexpr uint32_t get_flags(bool from_newest, uint32_t resolution_s) {
    return (from_newest ? kFromNewest : 0) | (resolution_s << kResolutionShift);
}
[[nodiscard]] constexpr bool from_newest(uint32_t flags) {
    return (flags & kFromNewest) != 0;
}
[[nodiscard]] constexpr uint32_t resolution_of(uint32_t flags) {
    return flags >> kResolutionShift;
}

}  // namespace tsdb
