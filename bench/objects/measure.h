// What is measured of the object layer, one function for each subject of questions. Each works in a
// new folder below `base`, which is removed at the end, and throws std::runtime_error when an
// answer is wrong.
#pragma once

#include <string>
#include <vector>

#include "common/child_run.h"

namespace bench {

struct Sizes {
    /// Checks in the tree, four levels of ten folders each above them at the full size.
    uint32_t checks = 100'000;
    uint32_t updates = 20'000;
    uint32_t durable_writes = 1'000;
    uint32_t reads = 200'000;
    uint32_t questions = 200;
    /// Subtrees to be moved and deleted.
    std::vector<uint32_t> subtrees = {10, 100, 1'000, 10'000, 100'000};
    uint32_t formats = 500'000;
    /// Net checks below nodes, of the classes that there are.
    uint32_t real_checks = 100'000;
    uint32_t checks_of_node = 50;
};

/// Creates, updates and reads; counters and marks; the questions for marked objects, as "tarmik",
/// "walk", "SQLite" and "SQLite up".
[[nodiscard]] std::map<std::string, Figures> measure_tree(const std::string& base,
                                                          const Sizes& sizes);
/// Moves of subtrees of each size, and the background delete of the largest.
[[nodiscard]] Figures measure_subtrees(const std::string& base, const Sizes& sizes);
/// Creates of nodes and checks of the classes that there are, without their time series; the start
/// with that tree, and the memory that it takes. In processes of their own.
[[nodiscard]] Figures measure_checks(const std::string& base, const Sizes& sizes);
/// Units made into text.
[[nodiscard]] Figures measure_units(const Sizes& sizes);

}  // namespace bench
