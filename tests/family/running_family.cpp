#include "running_family.h"

#include <arpa/inet.h>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "processes.h"

namespace family {

namespace {

/// A port of the loopback address that nobody uses right now.
uint16_t free_port() {
    const platform::Fd socket_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(socket_fd.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(::getsockname(socket_fd.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

void run_to_end(const platform::SpawnRequest& request) {
    const platform::ExitStatus status = platform::wait_for_end(platform::spawn(request));
    EXPECT_FALSE(status.by_signal) << request.program;
    EXPECT_EQ(status.code, 0) << request.program;
}

}  // namespace

Outcome post(cli::Api& api, const std::string& path, const nlohmann::json& body) {
    Outcome outcome;
    try {
        outcome.answer = api.post(path, body);
    } catch (const cli::ServerRefusal& refusal) {
        outcome.refused = true;
        outcome.text = refusal.text();
    } catch (const cli::CommandError& failure) {
        outcome.text = failure.text();
    }
    return outcome;
}

std::string RunningFamily::program(const std::string& name) {
    const char* directory = std::getenv("TARMIK_BIN");
    return fmt::format("{}/{}", directory == nullptr ? "build/bin" : directory, name);
}

RunningFamily::RunningFamily(uint64_t journal_bytes, const std::string& more_config,
                             uint32_t log_mask, uint32_t block_bytes) {
    const uint16_t port = free_port();
    url_ = fmt::format("http://127.0.0.1:{}", port);
    std::ofstream(dir_.file("tarmik.toml")) << fmt::format(
        R"([server]
dbms_odb_file_path = "{0}/world.odb"
dbms_odbj_file_path = "{0}/world.odbj"
dbms_tsdb_file_path = "{0}/world.tsdb"
dbms_buffer_blocks = 500
dbms_cache_size = 200
dbms_cache_kin = 50
dbms_cache_kout = 100
variable_file = "{0}/variables.json"
smem_prefix = "{0}/run/fifo"
wapi_port = {1}
log_mask = {3}
[family]
log_dir = "{0}/log"
restart_first_delay_ms = 10
restart_longest_delay_ms = 50
{2}
)",
        dir_.path().string(), port, more_config, log_mask);
    run_to_end({.program = program("tarmik"),
                .arguments = {"format", database_path(), journal_path(), "--block-size",
                              std::to_string(block_bytes), "--journal-size",
                              std::to_string(journal_bytes)}});
    start();
}

void RunningFamily::start() {
    main_ = spawn_into_files({.program = program("tarmik"),
                              .arguments = {"run", "--config", dir_.file("tarmik.toml")},
                              .own_process_group = true},
                             "", dir_.file("errors"));
    stopped_ = false;
    if (!wait_healthy()) ADD_FAILURE() << "The family did not come up:\n" << log_text();
}

RunningFamily::~RunningFamily() {
    if (stopped_) return;
    const pid_t server = child_pid("dbms");
    const pid_t gateway = child_pid("wapi");
    const pid_t series = child_pid("tsdb");
    ::kill(main_.pid, SIGKILL);
    (void)platform::wait_for_end(main_);
    for (const pid_t child : {server, gateway, series})
        if (child > 0) ::kill(child, SIGKILL);
}

pid_t RunningFamily::child_pid(const std::string& name) const {
    std::istringstream children(read_file(fmt::format("/proc/{0}/task/{0}/children", main_.pid)));
    pid_t pid = -1;
    while (children >> pid)
        if (read_file(fmt::format("/proc/{}/comm", pid)) == name + "\n") return pid;
    return -1;
}

io::PoolAccess RunningFamily::pool_access(platform::Fd& pool) const {
    const std::string fds = fmt::format("/proc/{}/fd", main_.pid);
    for (const auto& entry : std::filesystem::directory_iterator(fds)) {
        if (std::filesystem::read_symlink(entry).string().find("memfd:") == std::string::npos)
            continue;
        pool = platform::Fd(::open(entry.path().c_str(), O_RDWR | O_CLOEXEC));
        struct stat status {};
        ::fstat(pool.get(), &status);
        return {pool.get(), dir_.file("run/fifo"), static_cast<uint64_t>(status.st_size)};
    }
    return {};
}

bool RunningFamily::wait_healthy(int limit_s) const {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(limit_s);
    while (std::chrono::steady_clock::now() < give_up) {
        try {
            cli::ApiClient client(url_);
            (void)client.get("/healthz");
            return true;
        } catch (const cli::CommandError&) {
            if (ends_within(main_.pidfd.get(), 0)) return false;
            ::usleep(5000);
        }
    }
    return false;
}

void RunningFamily::kill_main() {
    ::kill(main_.pid, SIGKILL);
    (void)platform::wait_for_end(main_);
    stopped_ = true;
}

platform::ExitStatus RunningFamily::stop() {
    ::kill(main_.pid, SIGTERM);
    return wait_for_end();
}

bool RunningFamily::logs(const std::string& text) const {
    for (int waited_ms = 0; waited_ms < 10'000; ++waited_ms) {
        if (log_text().find(text) != std::string::npos) return true;
        ::usleep(1000);
    }
    return false;
}

platform::ExitStatus RunningFamily::wait_for_end() {
    EXPECT_TRUE(ends_within(main_.pidfd.get(), 60)) << "The family does not stop:\n" << log_text();
    if (!ends_within(main_.pidfd.get(), 0)) return {true, 0};
    stopped_ = true;
    return platform::wait_for_end(main_);
}

std::string RunningFamily::errors_text() const {
    return read_file(dir_.file("errors"));
}

std::string RunningFamily::log_text() const {
    std::string text;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.file("log"), ignored))
        text += read_file(entry.path());
    return text;
}

}  // namespace family
