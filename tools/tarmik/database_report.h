// What verify and stat have in common: running a verification with progress on the terminal, and
// its figures as JSON.
#pragma once

#include <array>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string_view>

#include "mdb/verify_files.h"
#include "tarmik/offline_commands.h"

namespace cli {

/// The names of the indexes by number.
inline constexpr std::array<std::string_view, mdb::kMaxIndexes> kIndexNames = {
    "id", "parent", "active parent", "inherits", "master id", "alert notify"};

/// The words for the marks by number; empty for the one that doesn't exist.
inline constexpr std::array<std::string_view, mdb::kGreatestMark + 1> kMarkNames = {
    "empty", "used", "full", "", "root index", "non-root index", "leaf", "lob"};

/// Verifies with all checks that an operator wants: those of the store, parents, and who names each
/// large object. Throws like mdb::verify_files().
[[nodiscard]] mdb::FileVerification verify_with_all_checks(
    const OfflineArguments& arguments,
    const std::function<void(const mdb::VerifyProgress&)>& progress);
/// The same without a line in the log. Shows how far it is if remarks go to a terminal.
[[nodiscard]] mdb::FileVerification verify_with_progress(const OfflineArguments& arguments,
                                                         const Output& output);

/// Sizes, blocks, objects, indexes, large objects and journal.
[[nodiscard]] nlohmann::ordered_json figures_to_json(const mdb::FileVerification& found);

}  // namespace cli
