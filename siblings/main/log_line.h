// The form of the family's log files, for who writes them and who reads them.
//
//   2026-11-23T09:52:00.123+01:00 dbms [dbcache] [warning] text
//   time, local                   process logger  level     one line; "\n" stands for a line end,
//                                                         "\x1b" for a sign that terminals obey
//
// Each process has its files: "tarmik-dbms.log", and older ones "tarmik-dbms.log.1",
// "tarmik-dbms.log.2" and so on.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "log/log.h"
#include "platform/clock.h"

namespace mainprocess {

/// One entry without line end. `text` is what a process handed over, "[logger] [level] words".
[[nodiscard]] std::string form_log_line(const platform::WallTime& now, std::string_view process,
                                        std::string_view text);
/// The "[logger] [level] words" of an entry that no logger made.
[[nodiscard]] std::string form_log_text(std::string_view logger, logging::level_t level,
                                        std::string_view words);

/// What a reader needs of an entry to sort and choose.
struct LogLineHead {
    int64_t time_ms = 0;  ///< since 1970
    logging::level_t level = logging::level_t::info;
};
/// None for a line that is no entry.
[[nodiscard]] std::optional<LogLineHead> parse_log_line(std::string_view line);

/// Name of a file of `process`; `age` 0 is the one being written.
[[nodiscard]] std::string log_file_name(std::string_view process, uint32_t age);

struct LogFileName {
    std::string process;
    uint32_t age = 0;
};
/// None for a name that log_file_name() doesn't give.
[[nodiscard]] std::optional<LogFileName> parse_log_file_name(std::string_view name);

}  // namespace mainprocess
