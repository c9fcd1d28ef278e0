// Where the log lines of the whole family end: the terminal, and files in the log directory, one
// for each process (log_line.h). A file that is full becomes the first of the older ones, and the
// last of those goes.
//
// Nothing that is wrong with disk or terminal stops anybody or makes anybody wait: a line that
// can't be written is counted, and the file itself says how many are missing once it can be written
// again.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "log/log.h"
#include "platform/clock.h"
#include "platform/fifo.h"

namespace mainprocess {

struct LogLimits {
    uint64_t file_bytes = 16U << 20;  ///< a file that would grow beyond it is full
    uint32_t files_kept = 8;          ///< older files of each process
    uint32_t days_kept = 0;           ///< older files not written for so long go; 0: never
};

class LogFiles {
  public:
    /// Writes to files in `directory`, which is made if it is missing; an empty name means terminal
    /// only. Removes what is older than the limits allow now, and whenever a day begins. Throws
    /// error::ESystemError when the directory cannot be made.
    LogFiles(std::string directory, const LogLimits& limits, const platform::Clock& clock);
    LogFiles(const LogFiles&) = delete;
    LogFiles& operator=(const LogFiles&) = delete;

    /// Writes one entry of `process` ("dbms", "main", ...), whose text is "[logger] [level] words".
    void write(std::string_view process, std::string_view text);
    /// The same for words that come from no logger.
    void write(std::string_view process, std::string_view logger, logging::level_t level,
               std::string_view words);

  private:
    struct LogFile {
        platform::Fd fd;
        dev_t device = 0;  ///< with the inode, which file it is
        ino_t inode = 0;
        uint64_t size_bytes = 0;
        uint64_t lost_lines = 0;
        bool torn = false;  ///< its last line lacks the end
    };

    void write_file(std::string_view process, LogFile& file, const std::string& line);
    void open(std::string_view process, LogFile& file);
    void rotate(std::string_view process, LogFile& file) const;
    /// False when not all of it could be written.
    bool append(LogFile& file, std::string_view bytes);
    void report_failure(std::string_view process);
    void write_terminal(std::string line);
    void remove_old_when_due();
    [[nodiscard]] std::string path(std::string_view process, uint32_t age) const;

    std::string directory_;
    LogLimits limits_;
    const platform::Clock& clock_;
    std::map<std::string, LogFile, std::less<>> files_;
    int64_t cleaned_on_day_ = -1;
    uint64_t terminal_skipped_ = 0;
    int error_ = 0;  ///< errno of the last failure
};

}  // namespace mainprocess
