// Everything that the family can be configured with, read from one TOML file.
//
// Each setting has a sane default, so that no file is needed. The [server] table holds the fields
// of the configuration record by their names; it is what every sibling is given when it asks.
// [siblings.NAME] says whether and how a sibling is started, [family] how the main process treats
// all of them.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "main/log_files.h"
#include "main/patience.h"
#include "main/restart_policy.h"
#include "queues/event_types.h"
#include "queues/records/control.h"

namespace mainprocess {

/// The main process's own write area in the pool.
inline constexpr uint32_t kOwnSliceBytes = 4U << 20;

/// How one sibling is run.
struct SiblingConfig {
    std::string name;                     ///< as in the file, for instance "dbms"
    queues::queue_t queue{};              ///< its endpoint, and its sibling id
    std::string program;                  ///< path of the executable
    std::set<queues::queue_t> depend_on;  ///< siblings that must be up before it is started
    uint32_t slice_size_bytes = 0;        ///< its write area in the pool, a multiple of 8
    bool enabled = true;
    /// It never waits for another sibling, so that one without an answer hangs. All others may owe
    /// an answer because they are owed one.
    bool waits_for_nobody = false;
};

struct Config {
    control::Server_Configuration_Fields server;
    std::vector<SiblingConfig> siblings;
    RestartLimits restart;
    PatienceLimits patience;
    /// After this time without an answer to an orderly stop a sibling is ended by force.
    int64_t stop_timeout_s = 30;
    /// Directory of the log files; empty for none.
    std::string log_dir;
    /// Their sizes and numbers; how long they are kept is a setting of the server.
    LogLimits log_limits;
};

/// The configuration without a file: data below the directory "var" of the working directory,
/// sibling programs in `program_dir`, and the layout file in the directory "conf" beside that.
[[nodiscard]] Config default_config(const std::string& program_dir);

/// default_config() changed by the settings of the TOML file at `path`. Throws error::EFatal with
/// file, line and the wrong key or value for anything that is no setting, has another type or is
/// out of range; nothing in the file is passed over.
[[nodiscard]] Config read_config(const std::string& path, const std::string& program_dir);

}  // namespace mainprocess
