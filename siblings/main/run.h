// `tarmik run`: the main process from its start to its end.
#pragma once

#include <string>

namespace mainprocess {

struct RunOptions {
    /// TOML file; empty for the defaults.
    std::string config_path;
};

/// Starts the family and returns when it has stopped, after SIGINT, SIGTERM or SIGHUP; the result
/// is the exit code. Failures of the start go to the error stream as "Caught: " and the text, exit
/// code 1.
[[nodiscard]] int run(const RunOptions& options);

}  // namespace mainprocess
