// `tarmik backup`: a consistent copy of a running family's database. The server gives the copy out
// through its control socket; here it becomes files, is verified, and only then gets its names.
#pragma once

#include <string>

#include "tarmik/commands.h"

namespace cli {

struct BackupArguments {
    /// Folder of the copy; made if there is none.
    std::string target;
    /// As of `tarmik run`; empty for the defaults.
    std::string config_path;
    /// Replace a copy that is there.
    bool force = false;
};

/// Copies database and journal into the target folder under their own names. Blocks SIGINT, SIGTERM
/// and SIGHUP for the rest of the process: they end the copy. Throws CommandError, kNotReachable
/// when no server has the database open, kRefused when it won't make a copy, kFailed otherwise;
/// then the folder is as it was.
void backup(const BackupArguments& arguments, const Output& output);

}  // namespace cli
