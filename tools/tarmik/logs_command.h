// The command that shows the family's log files. It reads them where they lie and asks no process,
// so it works when the family is stopped too.
#pragma once

#include <cstdint>
#include <string>

#include "tarmik/commands.h"

namespace cli {

struct LogsArguments {
    std::string config_path;
    std::string process;      ///< empty: all
    std::string level;        ///< text of the lowest level to show
    uint64_t last_lines = 0;  ///< of what is there at first; 0: all
    bool follow = false;
};

/// Prints entries by time, and, to follow, those that come, until the reader has enough. Throws
/// CommandError when there are no log files to be read.
void show_logs(const LogsArguments& arguments, const Output& output);

}  // namespace cli
