#include "main/instance_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "error/exception.h"

namespace mainprocess {

namespace {

/// Takes the access of others to the directory away. One that was there before and that others
/// write to is theirs as well (/tmp, say).
void make_private(const std::string& directory, bool made) {
    struct stat status {};
    if (::stat(directory.c_str(), &status) != 0)
        throw error::ESystemError("Cannot look at directory " + directory, errno);
    if (!made && (status.st_uid != ::geteuid() || (status.st_mode & S_IWOTH) != 0))
        throw error::EFatal(fmt::format(
            "Directory {} of the FIFOs is not this user's alone; choose another smem_prefix",
            directory));
    if (::chmod(directory.c_str(), 0700) != 0)
        throw error::ESystemError("Cannot change the mode of directory " + directory, errno);
}

}  // namespace

platform::Fd take_instance_lock(const std::string& fifo_prefix) {
    const std::filesystem::path directory = std::filesystem::absolute(fifo_prefix).parent_path();
    std::error_code failure;
    const bool made = std::filesystem::create_directories(directory, failure);
    if (failure)
        throw error::ESystemError("Cannot make directory " + directory.string(), failure.value());
    make_private(directory.string(), made);
    const std::string path = fifo_prefix + ".lock";
    platform::Fd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock) throw error::ESystemError("Cannot open lock file " + path, errno);
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) throw error::ESystemError("Cannot lock " + path, errno);
        throw error::EFatal(
            fmt::format("Another family is running with the FIFOs {}.*", fifo_prefix));
    }
    return lock;
}

}  // namespace mainprocess
