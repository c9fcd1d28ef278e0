// The command line: which commands there are, what they take, and what comes out of them.
#pragma once

#include <string>
#include <vector>

#include "tarmik/commands.h"

namespace cli {

/// `tarmik` with these arguments, the program's name left out. Gives the exit code.
[[nodiscard]] int run_command_line(std::vector<std::string> arguments);

/// One line of the shell, split into words. Gives its exit code; what went wrong stands on the
/// error stream.
[[nodiscard]] int run_shell_command(std::vector<std::string> words, Api& api, const Output& output);

/// The commands that the shell knows, sorted.
[[nodiscard]] std::vector<std::string> shell_commands();

}  // namespace cli
