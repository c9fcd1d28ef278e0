#include "tarmik/terminal.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace cli {

namespace {

// The second screen, without line wrap and without cursor; and back.
constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?7l\x1b[?25l";
constexpr std::string_view kLeave = "\x1b[?25h\x1b[?7h\x1b[?1049l";

sigset_t caught_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int each : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH})
        sigaddset(&signals, each);
    return signals;
}

void put(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written <= 0) return;  // a terminal that is gone; the signal of that comes by itself
        text.remove_prefix(static_cast<size_t>(written));
    }
}

}  // namespace

CaughtSignals::CaughtSignals() {
    const sigset_t signals = caught_signals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    fd_ = platform::Fd(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
}

CaughtSignals::~CaughtSignals() {
    while (take() != 0) {
    }
    const sigset_t signals = caught_signals();
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

int CaughtSignals::take() const {
    signalfd_siginfo info{};
    return ::read(fd_.get(), &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo)
                                                                : 0;
}

Screen::Screen() : has_keys_(::isatty(STDIN_FILENO) == 1) {
    if (has_keys_) has_keys_ = ::tcgetattr(STDIN_FILENO, &before_) == 0;
    enter();
}

Screen::~Screen() {
    leave();
}

void Screen::enter() {
    if (has_keys_) {
        termios keys = before_;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VMIN] = 0;
        keys.c_cc[VTIME] = 0;
        ::tcsetattr(STDIN_FILENO, TCSANOW, &keys);
    }
    put(kEnter);
}

void Screen::leave() {
    put(kLeave);
    if (has_keys_) ::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
}

void Screen::suspend() {
    leave();
    ::kill(::getpid(), SIGSTOP);  // returns when the process goes on
    enter();
}

Screen::Size Screen::size() const {
    winsize window{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_row == 0) return {};
    return {window.ws_row, window.ws_col};
}

void Screen::draw(const std::vector<std::string>& lines, const std::string& status) {
    const size_t rows = size().rows;
    std::string text = "\x1b[H";
    for (const std::string& line : lines) text += line + "\x1b[K\n";
    text += "\x1b[J";
    text += "\x1b[" + std::to_string(rows) + ";1H\x1b[7m" + status + "\x1b[0m\x1b[K";
    put(text);
}

int Screen::keys_fd() const {
    return has_keys_ ? STDIN_FILENO : -1;
}

std::vector<key_t> Screen::take_keys() {
    char bytes[64];
    const ssize_t size = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (size <= 0) {
        has_keys_ = has_keys_ && size != 0;
        return {};
    }
    struct Sequence {
        std::string_view bytes;
        key_t key;
    };
    static constexpr Sequence kSequences[] = {
        {"\x1b[A", key_t::up},
        {"\x1b[B", key_t::down},
        {"\x1bOA", key_t::up},
        {"\x1bOB", key_t::down},
        {"\x1b[5~", key_t::page_up},
        {"\x1b[6~", key_t::page_down},
        {"\x1b[H", key_t::home},
        {"\x1b[F", key_t::end},
        {"\x1b[1~", key_t::home},
        {"\x1b[4~", key_t::end},
        {"k", key_t::up},
        {"j", key_t::down},
        {" ", key_t::page_down},
        {"q", key_t::quit},
        {"g", key_t::home},
        {"G", key_t::end},
    };
    std::vector<key_t> keys;
    std::string_view left(bytes, static_cast<size_t>(size));
    while (!left.empty()) {
        size_t length = 1;
        for (const Sequence& each : kSequences)
            if (left.starts_with(each.bytes)) {
                keys.push_back(each.key);
                length = each.bytes.size();
                break;
            }
        left.remove_prefix(length);
    }
    return keys;
}

bool is_read(std::FILE* output) {
    if (std::fflush(output) != 0 || std::ferror(output) != 0) return false;
    pollfd reader{::fileno(output), 0, 0};
    return ::poll(&reader, 1, 0) <= 0;  // nothing is asked for but the end
}

bool can_draw() {
    const char* kind = std::getenv("TERM");
    return ::isatty(STDOUT_FILENO) == 1 && kind != nullptr && *kind != '\0' &&
           std::strcmp(kind, "dumb") != 0;
}

}  // namespace cli
