// The real server with the test as its main process.
#pragma once

#include <string>

#include "main/config.h"
#include "queues/records/control.h"
#include "running_family.h"
#include "scripted_family.h"

namespace family {

/// A database and its journal.
struct Files {
    explicit Files(const support::TempDir& dir)
        : database(dir.file("world.odb")), journal(dir.file("world.odbj")) {}
    std::string database, journal;
};

/// The server and the little of a main process that it needs to start and stop.
class HostedServer {
  public:
    explicit HostedServer(const Files& files)
        : config_(mainprocess::default_config(RunningFamily::program(".")).server) {
        config_.dbms_odb_file_path = files.database;
        config_.dbms_odbj_file_path = files.journal;
    }

    /// What the server is given when it asks; to be changed before start().
    [[nodiscard]] control::Server_Configuration_Fields& config() { return config_; }

    /// True once the server says that it is ready, false when it has ended before.
    bool start() {
        up_ = false;
        family_.start_program(queues::queue_t::dbms, RunningFamily::program("dbms"));
        family_.serve_until(
            [&] { return answer_all() && (up_ || !family_.running(queues::queue_t::dbms)); });
        return up_;
    }
    platform::ExitStatus stop() {
        family_.queue().send(queues::devent<queues::SYS_EXIT>(
            queues::queue_t::dbms, 0,
            {.reason = 0, .requested_by = queues::queue_t::main, .error_msg = {}}));
        return wait_for_end();
    }
    platform::ExitStatus wait_for_end() {
        family_.serve_until(
            [&] { return answer_all() && !family_.running(queues::queue_t::dbms); });
        return family_.wait_for_end(queues::queue_t::dbms);
    }
    [[nodiscard]] std::string errors() const { return family_.errors(queues::queue_t::dbms); }
    /// For siblings that the server finds beside it; to be started before it.
    [[nodiscard]] ScriptedFamily& family() { return family_; }

  private:
    bool answer_all() {
        while (const auto received = family_.take_event()) {
            if (received->number() == queues::INIT_OK) up_ = true;
            if (received->number() == queues::REQUEST_SERVER_CONFIGURATION)
                family_.queue().send(queues::devent<queues::SERVER_CONFIGURATION>(
                    queues::queue_t::dbms, received->uid, config_));
            if (received->number() == queues::REQUEST_SERVER_VARIABLE_FIELDS)
                family_.queue().send(queues::devent<queues::RETURN_SERVER_VARIABLE_FIELDS>(
                    queues::queue_t::dbms, received->uid));
        }
        return true;
    }

    control::Server_Configuration_Fields config_;
    ScriptedFamily family_{1U << 20};
    bool up_ = false;
};

}  // namespace family
