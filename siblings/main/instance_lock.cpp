#include "main/instance_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>

#include "error/exception.h"

namespace mainprocess {

platform::Fd take_instance_lock(const std::string& fifo_prefix) {
    const std::filesystem::path directory = std::filesystem::absolute(fifo_prefix).parent_path();
    std::error_code failure;
    std::filesystem::create_directories(directory, failure);
    if (failure || ::chmod(directory.c_str(), 0700) != 0)
        throw error::ESystemError("Cannot make directory " + directory.string(),
                                  failure ? failure.value() : errno);
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
