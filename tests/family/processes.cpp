#include "processes.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <unistd.h>

namespace family {

namespace {

/// Has one of this process's standard streams go to a file, as long as it lives.
class Redirected {
  public:
    Redirected(int stream, const std::string& path) : stream_(stream) {
        if (path.empty()) return;
        kept_ = platform::Fd(::fcntl(stream, F_DUPFD_CLOEXEC, 3));
        const platform::Fd file(
            ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        ::dup2(file.get(), stream);
    }
    ~Redirected() {
        if (kept_) ::dup2(kept_.get(), stream_);
    }
    Redirected(const Redirected&) = delete;
    Redirected& operator=(const Redirected&) = delete;

  private:
    int stream_;
    platform::Fd kept_;
};

}  // namespace

bool wait_for(const std::function<bool()>& done, int limit_s) {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(limit_s);
    while (!done()) {
        if (std::chrono::steady_clock::now() > give_up) return false;
        ::usleep(2000);
    }
    return true;
}

bool ends_within(int pidfd, int limit_s) {
    pollfd end{.fd = pidfd, .events = POLLIN, .revents = 0};
    return ::poll(&end, 1, limit_s * 1000) == 1;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string sleeping_sibling(const support::TempDir& programs, const std::string& name) {
    return scripted_sibling(programs, name, "exec sleep 600\n");
}

std::string scripted_sibling(const support::TempDir& programs, const std::string& name,
                             const std::string& script) {
    const std::string program = programs.file(name);
    std::ofstream(program) << "#!/bin/sh\n" << script;
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    return fmt::format("[siblings.{}]\nprogram = \"{}\"\n", name, program);
}

platform::ChildProcess spawn_into_files(const platform::SpawnRequest& request,
                                        const std::string& output_path,
                                        const std::string& errors_path) {
    (void)::fflush(stdout);
    (void)::fflush(stderr);
    const Redirected output(STDOUT_FILENO, output_path);
    const Redirected errors(STDERR_FILENO, errors_path);
    return platform::spawn(request);
}

}  // namespace family
