#include "main/variable_store.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "error/exception.h"

namespace mainprocess {

namespace {

/// Closes a file descriptor at the end of a scope.
struct OpenFile {
    int fd;
    ~OpenFile() {
        if (fd >= 0) ::close(fd);
    }
};

void write_all(int fd, const std::string& text, const std::string& path) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw error::ESystemError("Cannot write " + path, errno);
        done += static_cast<size_t>(count);
    }
}

std::string json_text(const VariableStore::Values& values) {
    try {
        return nlohmann::json(values).dump(2) + "\n";
    } catch (const nlohmann::json::exception& reason) {  // bytes that are no UTF-8
        throw error::Exception(fmt::format("A value is no text: {}", reason.what()));
    }
}

void sync_directory(const std::string& path) {
    const std::string directory = std::filesystem::absolute(path).parent_path().string();
    const OpenFile handle{::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (handle.fd < 0 || ::fsync(handle.fd) != 0)
        throw error::ESystemError("Cannot sync " + directory, errno);
}

}  // namespace

VariableStore::VariableStore(std::string path) : path_(std::move(path)) {
    std::ifstream in(path_);
    if (!in) {
        if (std::filesystem::exists(path_))
            throw error::EFatal(fmt::format("Cannot read variable file {}", path_));
        return;
    }
    try {
        values_ = nlohmann::json::parse(in).get<Values>();
    } catch (const nlohmann::json::exception& reason) {
        throw error::EFatal(fmt::format("Variable file {} is damaged: {}", path_, reason.what()));
    }
}

void VariableStore::store(const Values& changed) {
    Values merged = values_;
    for (const auto& [name, value] : changed) merged[name] = value;
    if (merged == values_) return;
    write(merged);
    values_ = std::move(merged);
}

void VariableStore::write(const Values& values) const {
    const std::string text = json_text(values);
    const std::string temporary = path_ + ".new";
    {
        const OpenFile out{
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
        if (out.fd < 0) throw error::ESystemError("Cannot create " + temporary, errno);
        write_all(out.fd, text, temporary);
        if (::fsync(out.fd) != 0) throw error::ESystemError("Cannot sync " + temporary, errno);
    }
    if (::rename(temporary.c_str(), path_.c_str()) != 0)
        throw error::ESystemError(fmt::format("Cannot replace {}", path_), errno);
    sync_directory(path_);
}

}  // namespace mainprocess
