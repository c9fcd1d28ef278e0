// A family whose children are scripts: the test process is the parent, and each child is a forked
// process that runs a function over a real messenger and queue. The test tells a child what to do
// next by lines (order) and learns what happened by lines (report), over pipes beside the family's
// own traffic, so that every step stands where the test wants it without waiting for luck.
//
// While a child waits for an order it looks at neither its FIFO nor its queue.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "io/parent_messenger.h"
#include "io/selector.h"
#include "io/system_handle.h"
#include "io/timer.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "queues/childqueue.h"
#include "support/temp_dir.h"

namespace family {

/// What a script has in hand. Lives in the child process.
class Actor {
  public:
    Actor(queues::queue_t id, const io::PoolAccess& access, int orders_fd, int report_fd);

    /// Tells the test a line. Signals that wait are sent off before.
    void report(std::string_view line);
    /// Waits for the test's next line; nothing else is served meanwhile.
    [[nodiscard]] std::string order();
    /// The next event of the queue, none at the end of some peer.
    [[nodiscard]] std::unique_ptr<queues::event> next() { return queue.read(); }
    /// The three steps of an orderly end; events that arrive meanwhile are dropped.
    void stop_in_order();

  private:
    platform::SystemClock clock_;
    int orders_fd_;
    int report_fd_;

  public:
    io::ChildMessenger messenger;
    queues::childqueue queue;
};

using Script = std::function<void(Actor&)>;

class ScriptedFamily final : private io::ParentPolicy {
  public:
    /// Each area, the parent's too, has `slice_bytes`.
    explicit ScriptedFamily(uint32_t slice_bytes = 1U << 16);
    /// Ends what still runs by force.
    ~ScriptedFamily() override;
    ScriptedFamily(const ScriptedFamily&) = delete;
    ScriptedFamily& operator=(const ScriptedFamily&) = delete;

    /// Forks a process that runs `script` as sibling `id` and exits with 0 after it, 1 after an
    /// error::Exception, 98 after a failed expectation. Returns when it is up; its former life must
    /// have ended.
    void start(queues::queue_t id, Script script);
    /// Starts a real program as sibling `id`. Returns at once.
    void start_program(queues::queue_t id, const std::string& program);
    void order(queues::queue_t id, std::string_view line);
    /// Serves the family until the child has said something more; empty after the time limit.
    [[nodiscard]] std::string next_report(queues::queue_t id);
    /// SIGKILL, and serves until the family has taken note.
    platform::ExitStatus kill(queues::queue_t id);
    [[nodiscard]] pid_t pid(queues::queue_t id) const { return children_.at(id).process.pid; }
    /// Serves until the child has ended by itself.
    platform::ExitStatus wait_for_end(queues::queue_t id);
    /// What the child, in all its lives, wrote to its error stream.
    [[nodiscard]] std::string errors(queues::queue_t id) const;

    /// Runs the parent's loop until `done`. A minute without it fails the test and gives false.
    bool serve_until(const std::function<bool()>& done);
    [[nodiscard]] bool running(queues::queue_t id) const { return children_.at(id).running; }
    /// The next event that is there already, or null.
    [[nodiscard]] std::unique_ptr<queues::event> take_event();
    /// The next event for the parent, null after the time limit. Ends of streams are passed over.
    [[nodiscard]] std::unique_ptr<queues::event> next_event();

    [[nodiscard]] io::ParentMessenger& messenger() { return messenger_; }
    [[nodiscard]] queues::childqueue& queue() { return queue_; }

  private:
    struct Child {
        platform::ChildProcess process;
        platform::Fd orders, reports;
        std::unique_ptr<io::FdSelectable> end, said;
        std::string partial_line;
        std::deque<std::string> lines;
        bool running = false;
        platform::ExitStatus status;
    };

    uint32_t sliceSize(uint32_t) override { return slice_bytes_; }
    bool requestPeer(uint32_t, uint32_t wanted) override { return expected_.contains(wanted); }

    Child& fresh_child(queues::queue_t id);
    void watch_end(queues::queue_t id, Child& child);
    [[noreturn]] void play(queues::queue_t id, const Script& script, int orders_fd, int report_fd);
    void serve_once();
    bool is_timer(const io::Selectable& ready) const { return &ready == &timer_; }
    void look_at_child(queues::queue_t id, Child& child, const io::Selectable& ready);
    void read_reports(Child& child);
    void note_end(queues::queue_t id, Child& child);
    [[nodiscard]] std::string errors_path(queues::queue_t id) const;

    support::TempDir dir_;
    platform::SystemClock clock_;
    uint32_t slice_bytes_;
    std::set<uint32_t> expected_;
    io::ParentMessenger messenger_;
    queues::childqueue queue_;
    io::Timer timer_;
    io::Selector<int> selector_;
    std::map<queues::queue_t, Child> children_;
    std::deque<std::unique_ptr<queues::event>> events_;
    bool timed_out_ = false;
};

}  // namespace family
