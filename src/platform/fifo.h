// Named pipes of the file system, and the owner of a descriptor. All descriptors are close-on-exec.
#pragma once

#include <string>
#include <utility>

namespace platform {

/// Owns a file descriptor; -1 is none.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept;
    ~Fd() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }
    /// Closes it now, if there is one.
    void reset() noexcept;

  private:
    int fd_ = -1;
};

/// Makes the FIFO at `path` with mode 0600 whatever the umask, after removing one that was left
/// there, and opens it for reading without blocking. It never reports the end of its writers.
/// error::ESystemError "Cannot open file " + path.
[[nodiscard]] Fd create_fifo(const std::string& path);

/// Opens the FIFO at `path` for writing without blocking. None if there is no such file or nobody
/// reads it; any other failure is error::ESystemError with `failure_text`.
[[nodiscard]] Fd open_fifo_for_writing(const std::string& path, const std::string& failure_text);

/// Has writes to a pipe without reader fail with EPIPE in place of ending the process.
void ignore_broken_pipe_signal();

}  // namespace platform
