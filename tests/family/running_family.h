// A whole family of real processes in a directory of its own: `tarmik run` with its server and
// gateway, on a free port of the loopback address. For tests that look at it from outside, as a
// user would.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <sys/types.h>

#include "io/shared_memory.h"
#include "platform/process.h"
#include "support/temp_dir.h"
#include "tarmik/api_client.h"

namespace family {

/// Outcome of one HTTP request: the answer, or why there is none.
struct Outcome {
    std::optional<nlohmann::ordered_json> answer;
    bool refused = false;  ///< the server said no
    std::string text;      ///< why

    [[nodiscard]] bool ok() const { return answer.has_value(); }
};

/// Sends a request and catches what the client throws.
[[nodiscard]] Outcome post(cli::Api& api, const std::string& path, const nlohmann::json& body);

class RunningFamily {
  public:
    /// Formats a database (blocks of `block_bytes`, a journal of `journal_bytes`) and starts the
    /// family, with `more_config` behind its configuration, which ends with the table [family],
    /// and with `log_mask` for its server. Fails the test when it isn't up within a minute.
    explicit RunningFamily(uint64_t journal_bytes = 4U << 20, const std::string& more_config = {},
                           uint32_t log_mask = 0, uint32_t block_bytes = 1024);
    /// Ends it by force if stop() was not called.
    ~RunningFamily();
    RunningFamily(const RunningFamily&) = delete;
    RunningFamily& operator=(const RunningFamily&) = delete;

    [[nodiscard]] const std::string& url() const { return url_; }
    [[nodiscard]] std::string database_path() const { return dir_.file("world.odb"); }
    [[nodiscard]] std::string journal_path() const { return dir_.file("world.odbj"); }
    [[nodiscard]] const support::TempDir& dir() const { return dir_; }

    /// Process id of the main process, and of its running child with this program name; -1 for
    /// none.
    [[nodiscard]] pid_t main_pid() const { return main_.pid; }
    [[nodiscard]] pid_t child_pid(const std::string& program) const;

    /// The way into its pool for one that nobody started: pool and FIFOs are there for every
    /// process of the same user. `pool` keeps the descriptor.
    [[nodiscard]] io::PoolAccess pool_access(platform::Fd& pool) const;

    /// True once GET /healthz gave 200, false after `limit_s` seconds.
    [[nodiscard]] bool wait_healthy(int limit_s = 60) const;

    /// Starts the family anew after stop() or kill_main(), and waits until it is up.
    void start();
    /// SIGKILL to the main process, nobody else, and waits for its end.
    void kill_main();
    /// SIGTERM, waits for the end. Gives the exit code of the main process.
    [[nodiscard]] platform::ExitStatus stop();
    /// The same for one who has told the family to stop before.
    [[nodiscard]] platform::ExitStatus wait_for_end();
    /// True once the log has this text, false after ten seconds.
    [[nodiscard]] bool logs(const std::string& text) const;

    /// Everything the family logged so far.
    [[nodiscard]] std::string log_text() const;

    /// What the processes wrote to their error streams.
    [[nodiscard]] std::string errors_text() const;

    /// Path of a program of this build.
    [[nodiscard]] static std::string program(const std::string& name);

  private:
    support::TempDir dir_;
    std::string url_;
    platform::ChildProcess main_;
    bool stopped_ = false;
};

}  // namespace family
