#include "platform/file.h"

#include <cerrno>
#include <fcntl.h>
#include <signal.h>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

#include "error/exception.h"
#include "platform/system_calls.h"

namespace platform {

namespace {

[[noreturn]] void fail(const char* what, const std::string& path, int code = errno) {
    throw error::ESystemError(std::string("Cannot ") + what + " " + path, code);
}

off_t file_position(uint64_t offset) {
    return static_cast<off_t>(offset);
}

/// The result of `call`, made again for as long as a signal interrupts it.
template <class Call>
auto uninterrupted(Call&& call) {
    for (;;) {
        const auto result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

class SystemFile final : public File {
  public:
    SystemFile(std::shared_ptr<SystemCalls> calls, int descriptor, std::string path)
        : calls_(std::move(calls)), descriptor_(descriptor), path_(std::move(path)) {}
    ~SystemFile() override { calls_->close(descriptor_); }
    SystemFile(const SystemFile&) = delete;
    SystemFile& operator=(const SystemFile&) = delete;

    size_t read_at(void* buffer, size_t length, uint64_t offset) override {
        auto* to = static_cast<char*>(buffer);
        size_t done = 0;
        while (done < length) {
            const ssize_t got = uninterrupted([&] {
                return calls_->pread(descriptor_, to + done, length - done,
                                     file_position(offset + done));
            });
            if (got < 0) fail("read", path_);
            if (got == 0) break;
            done += static_cast<size_t>(got);
        }
        return done;
    }

    void write_at(const void* data, size_t length, uint64_t offset) override {
        write_all(data, length, offset, 0);
    }

    void write_durable_at(const void* data, size_t length, uint64_t offset) override {
        try {
            write_all(data, length, offset, RWF_DSYNC);
        } catch (const error::ESystemError& failure) {
            if (failure.code() != EOPNOTSUPP) throw;
            // A file system without the flag: nothing was written.
            write_all(data, length, offset, 0);
            sync_data();
        }
    }

    void sync_data() override {
        // A sync that was interrupted may have dropped the error of a page: it isn't tried again.
        if (calls_->fdatasync(descriptor_) != 0) fail("sync", path_);
    }

    void start_writeback(uint64_t offset, uint64_t length) override {
        // An error stays with the file's pages until a sync asks for it.
        static_cast<void>(calls_->sync_file_range(descriptor_, file_position(offset),
                                                  file_position(length), SYNC_FILE_RANGE_WRITE));
    }

    uint64_t size() override {
        struct stat status {};
        if (calls_->fstat(descriptor_, &status) != 0) fail("stat", path_);
        if (S_ISREG(status.st_mode)) return static_cast<uint64_t>(status.st_size);
        const off_t end = calls_->lseek(descriptor_, 0, SEEK_END);
        if (end < 0) fail("seek in", path_);
        return static_cast<uint64_t>(end);
    }

    void resize(uint64_t length) override {
        if (uninterrupted([&] { return calls_->ftruncate(descriptor_, file_position(length)); }) !=
            0)
            fail("resize", path_);
    }

    bool try_lock() override {
        if (uninterrupted([&] { return calls_->flock(descriptor_, LOCK_EX | LOCK_NB); }) == 0)
            return true;
        if (errno == EWOULDBLOCK) return false;
        fail("lock", path_);
    }

    [[nodiscard]] int descriptor() const noexcept { return descriptor_; }
    [[nodiscard]] const std::string& path() const noexcept { return path_; }

  private:
    void write_all(const void* data, size_t length, uint64_t offset, int flags) {
        const char* from = static_cast<const char*>(data);
        while (length > 0) {
            iovec part{const_cast<char*>(from), length};
            // With RWF_DSYNC the interrupted part may have been the sync. To write anew is right
            // all the same: it makes every byte of this call dirty again, and no other is promised.
            const ssize_t done = uninterrupted([&] {
                return calls_->pwritev2(descriptor_, &part, 1, file_position(offset), flags);
            });
            if (done < 0) fail("write", path_);
            if (done == 0) fail("write", path_, ENOSPC);
            from += done;
            length -= static_cast<size_t>(done);
            offset += static_cast<uint64_t>(done);
        }
    }

    std::shared_ptr<SystemCalls> calls_;
    int descriptor_;
    std::string path_;
};

class SystemMapping final : public Mapping {
  public:
    SystemMapping(void* base, size_t base_length, size_t skip)
        : base_(base), base_length_(base_length), skip_(skip) {}
    ~SystemMapping() override { ::munmap(base_, base_length_); }
    SystemMapping(const SystemMapping&) = delete;
    SystemMapping& operator=(const SystemMapping&) = delete;

    [[nodiscard]] const std::byte* data() const override {
        return static_cast<const std::byte*>(base_) + skip_;
    }
    [[nodiscard]] size_t size() const override { return base_length_ - skip_; }

  private:
    void* base_;
    size_t base_length_;
    size_t skip_;
};

}  // namespace

SystemFiles::SystemFiles() : SystemFiles(std::make_shared<SystemCalls>()) {}

SystemFiles::SystemFiles(std::shared_ptr<SystemCalls> calls) : calls_(std::move(calls)) {}

std::unique_ptr<File> SystemFiles::open(const std::string& path) {
    const int descriptor =
        uninterrupted([&] { return calls_->open(path.c_str(), O_RDWR | O_CLOEXEC, 0); });
    if (descriptor < 0) fail("open", path);
    return std::make_unique<SystemFile>(calls_, descriptor, path);
}

std::unique_ptr<File> SystemFiles::create(const std::string& path) {
    const int descriptor = uninterrupted(
        [&] { return calls_->open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600); });
    if (descriptor < 0) fail("create", path);
    auto file = std::make_unique<SystemFile>(calls_, descriptor, path);
    // A umask can take the owner's own rights away.
    if (uninterrupted([&] { return calls_->fchmod(descriptor, 0600); }) != 0) {
        const int code = errno;
        static_cast<void>(calls_->unlink(path.c_str()));
        fail("set the mode of", path, code);
    }
    return file;
}

std::unique_ptr<Mapping> SystemFiles::map(File& file, uint64_t offset, size_t length) {
    auto& system_file = dynamic_cast<SystemFile&>(file);
    if (offset > system_file.size() || length > system_file.size() - offset)
        fail("map", system_file.path(), EOVERFLOW);
    const auto page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    const size_t skip = static_cast<size_t>(offset % page);
    void* base = calls_->mmap(length + skip, PROT_READ, MAP_SHARED, system_file.descriptor(),
                              file_position(offset - skip));
    if (base == MAP_FAILED) fail("map", system_file.path());
    return std::make_unique<SystemMapping>(base, length + skip, skip);
}

bool SystemFiles::exists(const std::string& path) {
    struct stat status {};
    if (calls_->lstat(path.c_str(), &status) == 0) return true;
    if (errno == ENOENT) return false;
    fail("stat", path);
}

void SystemFiles::rename(const std::string& from, const std::string& to) {
    if (calls_->rename(from.c_str(), to.c_str()) != 0) fail("rename", from);
}

void SystemFiles::remove(const std::string& path) {
    if (calls_->unlink(path.c_str()) != 0 && errno != ENOENT) fail("remove", path);
}

void SystemFiles::sync_folder_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "."
                               : slash == 0               ? "/"
                                                          : path.substr(0, slash);
    const int descriptor = uninterrupted(
        [&] { return calls_->open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0); });
    if (descriptor < 0) fail("open", folder);
    const int result = calls_->fsync(descriptor);
    const int code = errno;
    calls_->close(descriptor);
    if (result != 0) fail("sync", folder, code);
}

void ignore_file_size_signal() {
    ::signal(SIGXFSZ, SIG_IGN);
}

bool can_open_for_reading(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

}  // namespace platform
