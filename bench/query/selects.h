// The questions of the benchmark, put to the query engine and to SQLite in turn.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common/child_run.h"
#include "common/report.h"

namespace bench {

struct SelectSizes {
    /// The small tree has a tenth of the regions.
    bool small_tree = false;
    uint32_t rounds = 5;
    /// Objects that a round is to find with each question, by each subject.
    uint32_t objects = 200'000;
    /// The key of the one question to ask; empty: all.
    std::string only;
};

/// Rows of the questions' figures: objects per second of processor time, and what an answer takes
/// by the clock, its median, all but the slowest hundredth, and the slowest.
[[nodiscard]] std::vector<Row> select_rows();
/// The figures of "tarmik" and "SQLite". Works in a new folder below `base`. Throws
/// std::runtime_error when the answers of the two differ.
[[nodiscard]] std::map<std::string, Figures> measure_selects(const std::string& base,
                                                             const SelectSizes& sizes);

}  // namespace bench
