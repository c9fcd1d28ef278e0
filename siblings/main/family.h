// The main process: queue 0, parent of all siblings. It makes the pool, starts the siblings in the
// order of their dependencies, answers what they ask of it (configuration, variable fields,
// randomness), writes their log lines, starts a crashed one again, and stops all of them in order.
//
// One thread, one selector. Nothing here waits for a sibling: one that does not answer, stops in
// the middle of what it says, or does not read what it is told holds up nobody else, and is ended
// by force when the patience with it is over (patience.h).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "io/parent_messenger.h"
#include "io/selector.h"
#include "io/timer.h"
#include "log/log.h"
#include "main/config.h"
#include "main/log_files.h"
#include "main/supervised_sibling.h"
#include "main/variable_store.h"
#include "platform/span_clock.h"
#include "queues/childqueue.h"
#include "queues/event.h"

namespace mainprocess {

class Family final : private io::ParentPolicy {
  public:
    /// Makes pool and FIFO; starts nothing yet. `stop_fd` is a descriptor that becomes readable
    /// when the family is to stop, and again when it is to stop at once (a signalfd); it stays with
    /// the caller. Throws error::EFatal when another main process uses the same FIFO prefix, and
    /// error::ESystemError when the system refuses.
    Family(Config config, const platform::Clock& clock, int stop_fd);
    ~Family() override;

    /// Runs until the family has stopped. Returns the exit code of the process: 0 after an orderly
    /// stop, 1 when a sibling had to be ended by force.
    [[nodiscard]] int run();

  private:
    // io::ParentPolicy
    bool admits(uint32_t sibling_id) override;
    uint32_t sliceSize(uint32_t sibling_id) override;
    bool requestPeer(uint32_t asker, uint32_t wanted) override;

    // Supervision.
    void start_what_may_start();
    void start(SupervisedSibling& sibling);
    void look_after(io::Selectable& ready);
    void note_end(SupervisedSibling& sibling);
    void take_errors(SupervisedSibling& sibling);
    void log_error_line(const SupervisedSibling& sibling, const std::string& line);
    void leave_errors(SupervisedSibling& sibling);
    [[nodiscard]] std::string crash_directory() const;
    void look_at_deadlines();
    void look_at(SupervisedSibling& sibling);
    void end_overdue_stops();
    void look_for_stuck(SupervisedSibling& sibling);
    void ask_whether_alive(const SupervisedSibling& sibling);
    [[nodiscard]] bool says_that_it_lives(const queues::event& received);
    void give_up(queues::queue_t queue, std::string_view reason);
    void arm_timer();
    [[nodiscard]] bool is_up(queues::queue_t queue) const;
    [[nodiscard]] SupervisedSibling* find(queues::queue_t queue);
    [[nodiscard]] int64_t now_ms() const;

    // Stop.
    void begin_stop();
    void stop_what_may_stop();
    void stop(SupervisedSibling& sibling);
    [[nodiscard]] bool is_needed(queues::queue_t queue) const;
    void on_stop_signal();
    void kill_all();
    [[nodiscard]] bool all_stopped() const;

    // Events from siblings.
    void take_event();
    void dispatch(queues::event& received);
    void on_init_ok(const queues::event& received);
    void on_log_request(const queues::event& received);
    void on_store_variables(const queues::event& received);
    void on_spawn_request(const queues::event& received);
    void send_random(const queues::event& received);
    void send(const queues::event& sent);
    template <queues::event_t N, class Record>
    void reply(const queues::event& request, Record record);
    void say(std::string_view text, logging::level_t level = logging::level_t::info);

    Config config_;
    const platform::Clock& clock_;
    platform::Fd lock_;
    LogFiles log_;
    logging::OutletScope outlet_;
    VariableStore variables_;
    std::vector<std::unique_ptr<SupervisedSibling>> siblings_;
    /// What each sibling said that it needs, besides what its configuration says.
    std::map<queues::queue_t, std::set<queues::queue_t>> needs_;
    /// What a sibling that waits for nobody was asked and hasn't answered yet.
    struct Question {
        uint32_t uid;
        uint64_t since_us;
    };
    std::map<queues::queue_t, Question> questions_;
    io::ParentMessenger messenger_;
    queues::childqueue queue_;
    io::FdSelectable stop_order_;
    platform::SpanClock span_clock_;
    io::Timer timer_;
    io::Selector<int> selector_;
    int64_t next_look_ms_ = 0;
    bool stopping_ = false;
    bool killed_ = false;
};

}  // namespace mainprocess
