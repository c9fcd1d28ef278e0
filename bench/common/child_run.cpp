#include "common/child_run.h"

#include <chrono>
#include <csignal>
#include <exception>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "error/exception.h"

namespace bench {

namespace {

/// Ends the process without destructors: 0 when `work` returned, 1 with its text when it threw.
[[noreturn]] void end_after(const std::function<void()>& work) {
    int status = 1;
    try {
        work();
        status = 0;
    } catch (const error::Exception& failure) {
        fmt::print(stderr, "bench: {}\n", failure.text());
    } catch (const std::exception& failure) {
        fmt::print(stderr, "bench: {}\n", failure.what());
    }
    ::_exit(status);
}

pid_t fork_child() {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    return child;
}

int wait_for(pid_t child) {
    int status = 0;
    if (::waitpid(child, &status, 0) != child) throw std::runtime_error("waitpid failed");
    return status;
}

std::string as_text(const Figures& figures) {
    std::string text;
    for (const auto& [key, value] : figures) text += fmt::format("{} {}\n", key, value);
    return text;
}

void write_all(int to, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(to, text.data() + done, text.size() - done);
        if (written <= 0) throw std::runtime_error("writing the figures failed");
        done += static_cast<size_t>(written);
    }
}

Figures read_figures(int from) {
    std::string text;
    char buffer[4096];
    for (ssize_t got = 0; (got = ::read(from, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(got));
    Figures figures;
    std::istringstream in(text);
    std::string key;
    for (double value = 0; in >> key >> value;) figures[key] = value;
    return figures;
}

}  // namespace

Figures run_in_child(const std::function<Figures()>& work) {
    int ends[2];
    if (::pipe(ends) != 0) throw std::runtime_error("pipe failed");
    const pid_t child = fork_child();
    if (child == 0) end_after([&] { write_all(ends[1], as_text(work())); });
    ::close(ends[1]);
    Figures figures = read_figures(ends[0]);
    ::close(ends[0]);
    if (wait_for(child) != 0) throw std::runtime_error("a subject failed");
    return figures;
}

void run_and_kill(const std::function<void()>& work) {
    const pid_t child = fork_child();
    if (child == 0)
        end_after([&] {
            work();
            ::kill(::getpid(), SIGKILL);
        });
    const int status = wait_for(child);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
        throw std::runtime_error("a subject failed before it could be killed");
}

double resident_bytes() {
    std::ifstream in("/proc/self/statm");
    double total_pages = 0, resident_pages = 0;
    in >> total_pages >> resident_pages;
    return resident_pages * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

double seconds_of(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace bench
