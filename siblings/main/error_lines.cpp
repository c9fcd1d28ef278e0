#include "main/error_lines.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "error/exception.h"

namespace mainprocess {

namespace {

/// The reading end of a new pipe; `write` becomes the other one.
platform::Fd make_pipe(platform::Fd& write) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw error::ESystemError("Cannot make a pipe for an error stream", errno);
    write = platform::Fd(ends[1]);
    platform::Fd read(ends[0]);
    // The writer keeps blocking: what it says last must not be lost because the pipe is full.
    ::fcntl(read.get(), F_SETFL, O_NONBLOCK);
    return read;
}

}  // namespace

ErrorLines::ErrorLines() : read_(make_pipe(write_)), readable_(read_.get(), "error stream") {}

std::vector<std::string> ErrorLines::take() {
    std::vector<std::string> lines;
    char bytes[4096];
    // One pipe full at most: a writer without end must not keep its reader for ever.
    for (std::size_t taken = 0; taken < kMostBytes;) {
        const ssize_t count = ::read(read_.get(), bytes, sizeof bytes);
        if (count < 0 && errno == EINTR) continue;
        ended_ = count == 0;
        if (count <= 0) break;
        taken += static_cast<std::size_t>(count);
        for (ssize_t i = 0; i < count; ++i) {
            if (bytes[i] != '\n') begun_ += bytes[i];
            if (bytes[i] == '\n' || begun_.size() >= kMostBytes)
                lines.push_back(std::exchange(begun_, {}));
        }
    }
    if (ended_ && !begun_.empty()) lines.push_back(std::exchange(begun_, {}));
    return lines;
}

std::vector<std::string> ErrorLines::take_all() {
    std::vector<std::string> lines = take();
    if (!begun_.empty()) lines.push_back(std::exchange(begun_, {}));
    return lines;
}

}  // namespace mainprocess
