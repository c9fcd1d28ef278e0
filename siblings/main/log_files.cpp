#include "main/log_files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "error/exception.h"
#include "main/log_line.h"

namespace mainprocess {

namespace {

constexpr int64_t kDay_s = 86'400;

}  // namespace

LogFiles::LogFiles(std::string directory, const LogLimits& limits, const platform::Clock& clock)
    : directory_(std::move(directory)), limits_(limits), clock_(clock) {
    if (directory_.empty()) return;
    std::error_code failure;
    std::filesystem::create_directories(directory_, failure);
    if (failure)
        throw error::ESystemError("Cannot make log directory " + directory_, failure.value());
    remove_old_when_due();
}

void LogFiles::write(std::string_view process, std::string_view text) {
    std::string line = form_log_line(clock_.wall(), process, text) + "\n";
    if (!directory_.empty()) {
        remove_old_when_due();
        write_file(process, files_[std::string(process)], line);
    }
    write_terminal(std::move(line));
}

void LogFiles::write(std::string_view process, std::string_view logger, logging::level_t level,
                     std::string_view words) {
    write(process, form_log_text(logger, level, words));
}

void LogFiles::write_file(std::string_view process, LogFile& file, const std::string& line) {
    open(process, file);
    if (file.fd && file.size_bytes > 0 && file.size_bytes + line.size() > limits_.file_bytes) {
        rotate(process, file);
        open(process, file);
    }
    std::string bytes = file.torn ? "\n" : "";
    if (file.lost_lines > 0)
        bytes +=
            form_log_line(
                clock_.wall(), process,
                form_log_text("log", logging::level_t::warning,
                              fmt::format("{} lines could not be written here", file.lost_lines))) +
            "\n";
    if (file.fd && append(file, bytes) && append(file, line))
        file.lost_lines = 0;
    else if (++file.lost_lines == 1)
        report_failure(process);
}

void LogFiles::open(std::string_view process, LogFile& file) {
    struct stat info {};
    const std::string name = path(process, 0);
    // Somebody may have taken the file away, or given it another name.
    if (file.fd && ::stat(name.c_str(), &info) == 0 && info.st_dev == file.device &&
        info.st_ino == file.inode)
        return;
    file.fd = platform::Fd(
        ::open(name.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.fd) error_ = errno;
    if (!file.fd || ::fstat(file.fd.get(), &info) != 0) return;
    file.device = info.st_dev;
    file.inode = info.st_ino;
    file.size_bytes = static_cast<uint64_t>(info.st_size);
    char last = '\n';
    file.torn =
        info.st_size > 0 && ::pread(file.fd.get(), &last, 1, info.st_size - 1) == 1 && last != '\n';
}

// Whatever can't be renamed is overwritten or grows on; there is nobody to whom it would matter
// more than the next line.
void LogFiles::rotate(std::string_view process, LogFile& file) const {
    file.fd.reset();
    std::error_code ignored;
    if (limits_.files_kept == 0) std::filesystem::remove(path(process, 0), ignored);
    for (uint32_t age = limits_.files_kept; age > 0; --age)
        std::filesystem::rename(path(process, age - 1), path(process, age), ignored);
}

bool LogFiles::append(LogFile& file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(file.fd.get(), bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            error_ = errno;
            return false;
        }
        file.size_bytes += static_cast<uint64_t>(count);
        file.torn = bytes[static_cast<size_t>(count) - 1] != '\n';
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

void LogFiles::report_failure(std::string_view process) {
    write_terminal(
        form_log_line(clock_.wall(), "main",
                      form_log_text("log", logging::level_t::error,
                                    fmt::format("cannot write the log file {}: {}",
                                                path(process, 0), std::strerror(error_)))) +
        "\n");
}

// A stopped terminal, or a pipe that nobody reads, is passed over.
void LogFiles::write_terminal(std::string line) {
    pollfd terminal{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    if (::poll(&terminal, 1, 0) != 1 || (terminal.revents & POLLOUT) == 0) {
        ++terminal_skipped_;
        return;
    }
    if (terminal_skipped_ > 0)
        line.insert(0, fmt::format("({} lines were not shown here)\n", terminal_skipped_));
    terminal_skipped_ = 0;
    (void)std::fputs(line.c_str(), stderr);
}

void LogFiles::remove_old_when_due() {
    const int64_t now_s = clock_.wall().seconds;
    if (limits_.days_kept == 0 || now_s / kDay_s == cleaned_on_day_) return;
    cleaned_on_day_ = now_s / kDay_s;
    std::error_code failure;
    for (std::filesystem::directory_iterator entry(directory_, failure), end;
         !failure && entry != end; entry.increment(failure)) {
        const auto name = parse_log_file_name(entry->path().filename().string());
        struct stat info {};
        if (!name || name->age == 0 || ::lstat(entry->path().c_str(), &info) != 0) continue;
        if (info.st_mtime >= now_s - kDay_s * int64_t{limits_.days_kept}) continue;
        std::error_code kept;
        std::filesystem::remove(entry->path(), kept);
    }
}

std::string LogFiles::path(std::string_view process, uint32_t age) const {
    return fmt::format("{}/{}", directory_, log_file_name(process, age));
}

}  // namespace mainprocess
