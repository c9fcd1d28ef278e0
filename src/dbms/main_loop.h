// The server's one event loop.
//
//   running --SYS_EXIT--> shutting down --end of the main process's stream--> stopped
//      \------------------end of the main process's stream-----------------------^
//
// While it is shutting down, events are still dispatched as they arrive, and idle tasks rest.
#pragma once

#include <vector>

#include "dbms/control_socket.h"
#include "dbms/dispatcher.h"
#include "io/selector.h"
#include "io/sibling_messenger.h"
#include "io/timer.h"
#include "log/channel_mask.h"
#include "mdb/journal.h"
#include "platform/span_clock.h"
#include "queues/introspection.h"
#include "util/idle_task.h"

namespace dbms {

class MainLoop {
  public:
    /// What the loop works with besides the services; all outlive it.
    struct Parts {
        io::ChildMessenger& messenger;
        mdb::Journal& journal;
        Dispatcher& dispatcher;
        queues::Introspection& introspection;
        /// Computed anew every half minute.
        logging::ChannelMask& log_mask;
        ControlSocket* control = nullptr;
    };

    /// `tasks` are asked in their order.
    MainLoop(Services& services, const Parts& parts, std::vector<idle::IdleTask*> tasks);
    ~MainLoop();
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    /// Runs until the main process's stream has ended. Throws what ends the process.
    void run();

  private:
    [[nodiscard]] bool idle_work_waits() const;
    void turn();
    void do_idle_work();
    void take_event();
    void run_periodic_step();
    void refresh_log_mask();
    void arm_log_flag_timer();
    void arm_deferred_timer();
    void begin_shutdown();
    /// Runs a step of the work on subscriptions that no event answers for.
    template <class Step>
    void for_subscribers(Step&& step);

    Services& services_;
    io::ChildMessenger& messenger_;
    mdb::Journal& journal_;
    Dispatcher& dispatcher_;
    queues::Introspection& introspection_;
    logging::ChannelMask& log_mask_;
    ControlSocket* control_;
    std::vector<idle::IdleTask*> tasks_;
    /// The time of day may be set; flag files are looked at and evaluations run all the same.
    platform::SpanClock span_clock_;
    io::Timer deferred_evaluations_;
    io::Timer log_flags_;
    io::Selector<int> selector_;
    bool stop_ = false;
    /// The store of time series has ended since its awaited replies were last failed.
    bool time_series_ended_ = false;
    bool shutting_down_ = false;
};

}  // namespace dbms
