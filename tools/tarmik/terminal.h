// The terminal while a command owns it: signals as values in place of interruptions, single keys,
// and a second screen that is drawn in place and leaves the first one as it was.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <termios.h>
#include <vector>

#include "platform/fifo.h"

namespace cli {

/// Blocks the signals that end or stop a command, and those of the window, for as long as it lives;
/// they come out of fd() instead. Threads that are made meanwhile have them blocked too.
class CaughtSignals {
  public:
    CaughtSignals();
    ~CaughtSignals();
    CaughtSignals(const CaughtSignals&) = delete;
    CaughtSignals& operator=(const CaughtSignals&) = delete;

    [[nodiscard]] int fd() const { return fd_.get(); }
    /// The next signal that has come; 0 for none.
    [[nodiscard]] int take() const;

  private:
    platform::Fd fd_;
};

enum class key_t { none, quit, up, down, page_up, page_down, home, end };

/// Owns the screen of the standard output and, where it is a terminal, the keys of the standard
/// input. The destructor gives both back, whatever was drawn.
class Screen {
  public:
    Screen();
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    struct Size {
        size_t rows = 24;
        size_t columns = 80;
    };
    [[nodiscard]] Size size() const;

    /// Draws these lines from the top and the status in the last row; nothing else stays.
    void draw(const std::vector<std::string>& lines, const std::string& status);

    /// Readable when a key was pressed; -1 without keys.
    [[nodiscard]] int keys_fd() const;
    /// The keys that were pressed since the last call.
    [[nodiscard]] std::vector<key_t> take_keys();

    /// Gives the screen back, stops the process as the key Ctrl-Z does, and takes the screen again
    /// when it goes on.
    void suspend();

  private:
    void enter();
    void leave();

    bool has_keys_ = false;
    termios before_{};
};

/// Hands out what was printed to `output`. False once nobody is there who reads it, also before
/// there is something to read: a command that follows what comes ends behind "head" like that.
[[nodiscard]] bool is_read(std::FILE* output);

/// Whether the standard output is a terminal that can be drawn on.
[[nodiscard]] bool can_draw();

}  // namespace cli
