// `tarmik watch` and `tarmik events`: live requests followed until Ctrl-C. A connection that is
// lost is made again, a server that is away is waited for, and both are said.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tarmik/commands.h"

namespace cli {

struct WatchArguments {
    std::string pattern;
    std::vector<std::string> roots;  ///< none: the root of the tree
    uint32_t interval_s = 0;         ///< between two full results
    bool json = false;
};

struct EventsArguments {
    std::string root;                     ///< empty: the root of the tree
    std::vector<std::string> classes;     ///< none: all
    std::vector<std::string> operations;  ///< likewise
    bool json = false;
};

/// Shows the tree and keeps it up to date, on a terminal in place, else a line for each change.
/// Gives the exit code after a signal that ends it. Throws CommandError when the family can't be
/// reached at first, and when it refuses.
[[nodiscard]] int watch_command(const WatchArguments& arguments, const std::string& url,
                                const Output& output);

/// Prints a line for each operation, as above.
[[nodiscard]] int events_command(const EventsArguments& arguments, const std::string& url,
                                 const Output& output);

}  // namespace cli
