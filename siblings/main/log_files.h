// Where the log lines of the whole family end: the terminal, and one file per day in the log
// directory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace mainprocess {

class LogFiles {
  public:
    /// Writes to files in `directory`, which is made if it is missing; an empty name means terminal
    /// only. When a day begins, files of this kind that are older than `days_kept` days are
    /// removed; 0 keeps all. Throws error::ESystemError when the directory cannot be made.
    explicit LogFiles(std::string directory, uint32_t days_kept = 0);
    ~LogFiles();
    LogFiles(const LogFiles&) = delete;
    LogFiles& operator=(const LogFiles&) = delete;

    /// Writes one entry of `process` ("dbms", "main", ...) that arrived at `now_s` seconds since
    /// 1970. Line ends inside `text` are kept on one line as "\n". A full disk is reported on the
    /// terminal once and never stops the family.
    void write(int64_t now_s, std::string_view process, std::string_view text);

  private:
    void open_for_day(int64_t now_s);
    void remove_old(int64_t now_s) const;

    std::string directory_;
    uint32_t days_kept_;
    std::FILE* file_ = nullptr;
    std::string day_;
    bool reported_failure_ = false;
};

}  // namespace mainprocess
