#include "main/log_files.h"

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

LogFiles::LogFiles(std::string directory) : directory_(std::move(directory)) {
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
    std::string day = local_time(now_s, "%Y-%m-%d");
    if (file_ != nullptr && day == day_) return;
    if (file_ != nullptr) std::fclose(file_);
    file_ = nullptr;
    day_ = std::move(day);
    const std::string path = fmt::format("{}/tarmik-{}.log", directory_, day_);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) file_ = ::fdopen(fd, "a");
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
