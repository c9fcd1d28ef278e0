// What is measured of the store of time series, in the program that the family runs, beside plain
// rows in SQLite with the same settings. Both get the same records in the same order: one for each
// series and minute, all series of a minute before the next.
#pragma once

#include <cstdint>
#include <string>

#include "common/child_run.h"

namespace bench {

struct SeriesSizes {
    uint32_t series = 1'000;
    uint32_t records_each = 1'000;
    uint32_t wide_series = 100'000;
    uint32_t wide_records_each = 3;
    uint32_t awaited = 200;
    uint32_t reads = 2'000;
    uint32_t created = 2'000;
    uint32_t checks = 1'000;
};

/// A record of one measurement in the minute `minute` after some full hour.
struct Point {
    int64_t start, end;
    float value;
};
[[nodiscard]] Point point(uint32_t series, uint32_t minute);

/// The program `tsdb` beside this one, asked through a queue; in a new folder below `base`.
[[nodiscard]] Figures measure_store(const std::string& base, const SeriesSizes& sizes);
/// One table, a row for each record, committed once a second or every 50,000 rows.
[[nodiscard]] Figures measure_rows(const std::string& base, const SeriesSizes& sizes);

}  // namespace bench
