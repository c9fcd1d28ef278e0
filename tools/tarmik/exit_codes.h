// How the command ends. The same table stands in --help and docs/operating.md.
#pragma once

namespace cli {

enum exit_code_t : int {
    kDone = 0,
    kFailed = 1,
    kUsage = 2,
    kNotReachable = 3,
    kRefused = 4,
    kVersionConflict = 5,
};

inline constexpr const char* kExitCodeTable =
    "Exit codes:\n"
    "  0  done\n"
    "  1  failed\n"
    "  2  wrong usage\n"
    "  3  the family is not reachable\n"
    "  4  refused by the server\n"
    "  5  version conflict: someone else has changed the object\n";

}  // namespace cli
