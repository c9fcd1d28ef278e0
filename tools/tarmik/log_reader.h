// Reads the family's log files as one log, in the order of time, while they are written and
// rotated.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "main/log_line.h"
#include "platform/fifo.h"

namespace cli {

struct LogEntry {
    mainprocess::LogLineHead head;
    std::string line;  ///< without line end
};

/// The entries of one process, from its oldest file on. Files that are renamed meanwhile are read
/// to their end; those that are removed before their turn are passed over.
class ProcessLog {
  public:
    ProcessLog(std::string directory, std::string process)
        : directory_(std::move(directory)), process_(std::move(process)) {}

    /// The next entry; none if there is no more at the moment. A line without its end waits for it.
    /// A line that is no entry belongs to the one before.
    [[nodiscard]] std::optional<LogEntry> next();

  private:
    [[nodiscard]] std::optional<std::string> next_line();
    bool read_on();
    /// Opens the file behind the present one, or the oldest; false if there is none.
    bool open_next();

    std::string directory_;
    std::string process_;
    platform::Fd fd_;
    uint64_t inode_ = 0;
    std::string begun_;  ///< what was read and not given out yet
    size_t given_ = 0;   ///< bytes of it that were
    mainprocess::LogLineHead last_;
};

/// The logs of all processes, merged. Entries that arrive later than younger ones of others, while
/// the files are followed, come when they are there.
class LogReader {
  public:
    /// Of all processes with files in `directory`, or of `process` alone.
    LogReader(std::string directory, std::string process)
        : directory_(std::move(directory)), process_(std::move(process)) {}

    /// Looks which processes have files. Throws CommandError when the directory can't be read.
    void look_for_processes();
    [[nodiscard]] bool empty() const { return logs_.empty(); }
    /// The oldest entry that hasn't been given yet; none if there is no more at the moment.
    [[nodiscard]] std::optional<LogEntry> next();

  private:
    struct Source {
        ProcessLog log;
        std::optional<LogEntry> first;
    };

    std::string directory_;
    std::string process_;
    std::map<std::string, Source> logs_;
};

}  // namespace cli
