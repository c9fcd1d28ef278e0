// What a sibling writes to its error stream, line by line: the last words of a process that can
// send no log line any more. It reads a pipe and keeps the line that is not whole yet; where the
// lines go is its owner's matter.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "io/system_handle.h"
#include "platform/fifo.h"

namespace mainprocess {

class ErrorLines {
  public:
    /// Throws error::ESystemError when there is no pipe to be had.
    ErrorLines();

    /// What becomes the error stream of the process; to be closed here once that has started.
    [[nodiscard]] int writing_end() const { return write_.get(); }
    void close_writing_end() { write_.reset(); }

    /// Readable when there is something to take, also after has_ended().
    [[nodiscard]] io::FdSelectable& readable() { return readable_; }
    /// The lines that have become whole, without their ends; never waits. A line of more than
    /// kMostBytes comes in pieces. At the end of the stream that of its last line counts as there.
    [[nodiscard]] std::vector<std::string> take();
    /// The same, and what is there of a line whose end will not come.
    [[nodiscard]] std::vector<std::string> take_all();
    /// True once nobody is left who could write.
    [[nodiscard]] bool has_ended() const { return ended_; }

    static constexpr std::size_t kMostBytes = 1U << 16;

  private:
    platform::Fd write_, read_;
    io::FdSelectable readable_;
    std::string begun_;
    bool ended_ = false;
};

}  // namespace mainprocess
