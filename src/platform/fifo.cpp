#include "platform/fifo.h"

#include <cerrno>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "error/exception.h"

namespace platform {

Fd& Fd::operator=(Fd&& other) noexcept {
    if (this != &other) {
        reset();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

void Fd::reset() noexcept {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

Fd create_fifo(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        throw error::ESystemError("Cannot open file " + path, errno);
    // The umask can only take bits away from 0600; chmod puts them back.
    if (::mkfifo(path.c_str(), 0600) != 0 || ::chmod(path.c_str(), 0600) != 0)
        throw error::ESystemError("Cannot open file " + path, errno);
    // Open for writing too, so that the FIFO never ends when the last writer goes.
    Fd fd(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fd) throw error::ESystemError("Cannot open file " + path, errno);
    return fd;
}

Fd open_fifo_for_writing(const std::string& path, const std::string& failure_text) {
    Fd fd(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd && errno != ENOENT && errno != ENXIO) throw error::ESystemError(failure_text, errno);
    return fd;
}

void ignore_broken_pipe_signal() {
    ::signal(SIGPIPE, SIG_IGN);
}

}  // namespace platform
