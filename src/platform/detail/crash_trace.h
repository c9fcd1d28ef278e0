// The trace of a crash dump: return addresses to lines of text, in a signal handler.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace platform::detail {

/// Text built in a fixed place and written to a descriptor whenever it is full. Allocates nothing.
class CrashText {
  public:
    explicit CrashText(int fd) : fd_(fd) {}
    ~CrashText() { flush(); }
    CrashText(const CrashText&) = delete;
    CrashText& operator=(const CrashText&) = delete;

    CrashText& operator<<(std::string_view text);
    /// In decimal digits.
    CrashText& operator<<(uint64_t number) { return digits(number, 10); }
    CrashText& hex(uint64_t number);
    /// False once something could not be written; error() is the errno then.
    bool flush();
    [[nodiscard]] int error() const { return error_; }

  private:
    CrashText& digits(uint64_t number, unsigned base);

    int fd_;
    int error_ = 0;
    size_t length_ = 0;
    std::array<char, 512> buffer_{};
};

/// The return addresses of a thread, the innermost first.
struct Frames {
    static constexpr int kMost = 200;
    std::array<void*, kMost> addresses{};
    int count = 0;
    bool more = false;  ///< there are others further out
};

/// Makes capture_frames() safe in a signal handler: it loads what that needs.
void prepare_capture();
/// The frames below the signal handler that calls this; `crashed_at` is the address of the
/// instruction that was interrupted, and the first of them.
void capture_frames(const void* crashed_at, Frames& out);

/// Writes one line for each frame, with the names of functions, files and lines where they can be
/// told within a few seconds, else with addresses only.
void write_trace(int fd, const Frames& frames);

}  // namespace platform::detail
