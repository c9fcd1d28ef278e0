// `tarmik shell`: commands line by line. On a terminal with line editing, completion by the tab key
// and a history that lasts; otherwise it just reads its input.
#pragma once

#include "tarmik/commands.h"

namespace cli {

/// Reads until the end of input or "exit". From a terminal gives kDone; otherwise the exit code of
/// the last command that failed, or kDone.
[[nodiscard]] int run_shell(Api& api, const Output& output);

/// Where the history is kept: below $XDG_STATE_HOME, or ~/.local/state. Empty when the environment
/// tells neither.
[[nodiscard]] std::string history_path();

}  // namespace cli
