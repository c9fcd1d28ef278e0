// What verify and stat have in common: running a verification with progress on the terminal, and
// its figures as JSON.
#pragma once

#include <array>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string_view>

#include "mdb/verify_files.h"
#include "tarmik/offline_commands.h"
#include "tarmik/tree_census.h"

namespace cli {

/// The names of the indexes by number.
inline constexpr std::array<std::string_view, mdb::kMaxIndexes> kIndexNames = {
    "id", "parent", "active parent", "inherits", "master id", "alert notify"};

/// The words for the marks by number; empty for the one that doesn't exist.
inline constexpr std::array<std::string_view, mdb::kGreatestMark + 1> kMarkNames = {
    "empty", "used", "full", "", "root index", "non-root index", "leaf", "lob"};

struct DatabaseReport {
    mdb::FileVerification files;
    /// Of a database that could be opened.
    TreeFigures tree;
};

/// Verifies with all checks that an operator wants: those of the store, who names each large
/// object, parents, mark lists and counters. Throws like mdb::verify_files().
[[nodiscard]] DatabaseReport verify_with_all_checks(
    const OfflineArguments& arguments,
    const std::function<void(const mdb::VerifyProgress&)>& progress);
/// The same without a line in the log. Shows how far it is if remarks go to a terminal.
[[nodiscard]] DatabaseReport verify_with_progress(const OfflineArguments& arguments,
                                                  const Output& output);

/// Sizes, blocks, objects, indexes, large objects, tree and journal.
[[nodiscard]] nlohmann::ordered_json figures_to_json(const DatabaseReport& report);

}  // namespace cli
