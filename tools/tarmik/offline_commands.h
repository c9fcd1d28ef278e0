// The commands that look into the files of a database that no server uses: verify, dump, stat. They
// read only; a journal is replayed in memory. Data goes to the output stream, remarks and progress
// to the error stream. Files that can't be opened are mdb::error_open.
#pragma once

#include <cstddef>
#include <string>

#include "tarmik/commands.h"
#include "tarmik/exit_codes.h"

namespace cli {

struct OfflineArguments {
    std::string database_path;
    std::string journal_path;
    /// Of verify: further faults are only counted.
    size_t most_faults = 1000;
};

/// Prints one line for each fault and a summary; kFailed when there is a fault.
[[nodiscard]] exit_code_t verify_command(const OfflineArguments& arguments, const Output& output);

/// Prints each object as a line of JSON, by id. Objects that can't be read are remarks and make it
/// kFailed. Costs memory for the id and place of each object.
[[nodiscard]] exit_code_t dump_command(const OfflineArguments& arguments, const Output& output);

/// Prints what the files are filled with; kFailed when the database can't be opened.
[[nodiscard]] exit_code_t stat_command(const OfflineArguments& arguments, const Output& output);

}  // namespace cli
