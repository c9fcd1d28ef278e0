#include "tarmik/log_reader.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "tarmik/api_client.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

/// Calls `visit` with each name of a log file in the directory.
template <class Visit>
void for_each_log_file(const std::string& directory, Visit&& visit) {
    std::error_code failure;
    for (fs::directory_iterator entry(directory, failure), end; !failure && entry != end;
         entry.increment(failure))
        if (const auto name = mainprocess::parse_log_file_name(entry->path().filename().string()))
            visit(*name);
    if (failure)
        throw CommandError(kFailed, fmt::format("Cannot read the log directory {}: {}", directory,
                                                failure.message()));
}

}  // namespace

// ---- one process --------------------------------------------------------------------------------

std::optional<LogEntry> ProcessLog::next() {
    std::optional<std::string> line = next_line();
    if (!line) return std::nullopt;
    if (const auto head = mainprocess::parse_log_line(*line)) last_ = *head;
    return LogEntry{.head = last_, .line = std::move(*line)};
}

std::optional<std::string> ProcessLog::next_line() {
    for (;;) {
        const size_t end = begun_.find('\n', given_);
        if (end != begun_.npos) {
            std::string line = begun_.substr(given_, end - given_);
            given_ = end + 1;
            return line;
        }
        begun_.erase(0, given_);
        given_ = 0;
        if (!read_on() && !open_next()) return std::nullopt;
    }
}

bool ProcessLog::read_on() {
    if (!fd_) return false;
    std::array<char, 1U << 16> piece;
    ssize_t count = 0;
    do count = ::read(fd_.get(), piece.data(), piece.size());
    while (count < 0 && errno == EINTR);
    if (count <= 0) return false;
    begun_.append(piece.data(), static_cast<size_t>(count));
    return true;
}

bool ProcessLog::open_next() {
    std::set<uint32_t> ages;
    uint32_t behind = UINT32_MAX;
    for_each_log_file(directory_, [&](const mainprocess::LogFileName& name) {
        if (name.process != process_) return;
        ages.insert(name.age);
        struct stat info {};
        const std::string path =
            fmt::format("{}/{}", directory_, mainprocess::log_file_name(process_, name.age));
        if (fd_ && ::stat(path.c_str(), &info) == 0 && info.st_ino == inode_) behind = name.age;
    });
    // The oldest of those that are younger than the present one.
    const auto younger = ages.lower_bound(behind);
    if (younger == ages.begin()) return false;
    // It got its last lines before it was renamed, maybe after it was read.
    if (read_on()) return true;
    const std::string path =
        fmt::format("{}/{}", directory_, mainprocess::log_file_name(process_, *std::prev(younger)));
    platform::Fd next(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!next || ::fstat(next.get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    if (fd_ && info.st_ino == inode_) return false;  // renamed in this moment
    // A line whose end never came.
    if (!begun_.empty()) begun_ += '\n';
    fd_ = std::move(next);
    inode_ = info.st_ino;
    return true;
}

// ---- all of them --------------------------------------------------------------------------------

void LogReader::look_for_processes() {
    for_each_log_file(directory_, [&](const mainprocess::LogFileName& name) {
        if (!process_.empty() && name.process != process_) return;
        logs_.try_emplace(name.process,
                          Source{.log = ProcessLog(directory_, name.process), .first = {}});
    });
}

std::optional<LogEntry> LogReader::next() {
    Source* oldest = nullptr;
    for (auto& [process, source] : logs_) {
        if (!source.first) source.first = source.log.next();
        if (!source.first) continue;
        if (oldest == nullptr || source.first->head.time_ms < oldest->first->head.time_ms)
            oldest = &source;
    }
    if (oldest == nullptr) return std::nullopt;
    return std::exchange(oldest->first, std::nullopt);
}

}  // namespace cli
