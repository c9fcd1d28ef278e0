#include "main/log_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "error/exception.h"

namespace mainprocess {

namespace {

std::string local_time(int64_t now_s, const char* format) {
    const std::time_t seconds = static_cast<std::time_t>(now_s);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    char buffer[64];
    const size_t length = std::strftime(buffer, sizeof buffer, format, &parts);
    return {buffer, length};
}

constexpr int64_t kDay_s = 86'400;

std::string local_day(int64_t now_s) {
    return local_time(now_s, "%Y-%m-%d");
}

std::string file_name(const std::string& day) {
    return fmt::format("tarmik-{}.log", day);
}

/// Whether a file of this name is one of these logs.
bool is_file_name(const std::string& name) {
    const std::string form = file_name("0000-00-00");
    return std::equal(name.begin(), name.end(), form.begin(), form.end(),
                      [](char sign, char formed) {
                          return formed == '0' ? sign >= '0' && sign <= '9' : sign == formed;
                      });
}

std::string on_one_line(std::string_view text) {
    std::string line;
    line.reserve(text.size());
    for (const char sign : text) {
        if (sign == '\n')
            line += "\\n";
        else
            line += sign;
    }
    return line;
}

}  // namespace

LogFiles::LogFiles(std::string directory, uint32_t days_kept)
    : directory_(std::move(directory)), days_kept_(days_kept) {
    if (directory_.empty()) return;
    std::error_code failure;
    std::filesystem::create_directories(directory_, failure);
    if (failure)
        throw error::ESystemError("Cannot make log directory " + directory_, failure.value());
}

LogFiles::~LogFiles() {
    if (file_ != nullptr) std::fclose(file_);
}

void LogFiles::open_for_day(int64_t now_s) {
    std::string day = local_day(now_s);
    if (file_ != nullptr && day == day_) return;
    if (file_ != nullptr) std::fclose(file_);
    file_ = nullptr;
    day_ = std::move(day);
    remove_old(now_s);
    const std::string path = fmt::format("{}/{}", directory_, file_name(day_));
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) file_ = ::fdopen(fd, "a");
}

void LogFiles::remove_old(int64_t now_s) const {
    if (days_kept_ == 0) return;
    const std::string oldest = file_name(local_day(now_s - kDay_s * int64_t{days_kept_}));
    std::error_code failure;
    for (std::filesystem::directory_iterator entry(directory_, failure), end;
         !failure && entry != end; entry.increment(failure)) {
        const std::string name = entry->path().filename().string();
        // Dates of this form stand in the order of time.
        if (!is_file_name(name) || name >= oldest) continue;
        std::error_code kept;
        std::filesystem::remove(entry->path(), kept);
    }
}

void LogFiles::write(int64_t now_s, std::string_view process, std::string_view text) {
    const std::string line = fmt::format("{} {} {}\n", local_time(now_s, "%Y-%m-%d %H:%M:%S"),
                                         process, on_one_line(text));
    std::fputs(line.c_str(), stderr);
    if (directory_.empty()) return;
    open_for_day(now_s);
    const bool written =
        file_ != nullptr && std::fputs(line.c_str(), file_) >= 0 && std::fflush(file_) == 0;
    if (!written && !reported_failure_) {
        std::fprintf(stderr, "main: cannot write the log file in %s: %s\n", directory_.c_str(),
                     std::strerror(errno));
        reported_failure_ = true;
    }
}

}  // namespace mainprocess
