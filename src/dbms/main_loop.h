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
#include "mdb/journal.h"
#include "util/idle_task.h"

namespace dbms {

class MainLoop {
  public:
    /// All references outlive the loop. `tasks` are asked in their order. `control` may be null.
    MainLoop(Services& services, io::ChildMessenger& messenger, mdb::Journal& journal,
             Dispatcher& dispatcher, std::vector<idle::IdleTask*> tasks, ControlSocket* control);
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
    [[nodiscard]] bool consumed(const queues::event& received);
    void begin_shutdown();

    Services& services_;
    io::ChildMessenger& messenger_;
    mdb::Journal& journal_;
    Dispatcher& dispatcher_;
    std::vector<idle::IdleTask*> tasks_;
    ControlSocket* control_;
    io::Timer deferred_evaluations_;
    io::Selector<int> selector_;
    bool stop_ = false;
    bool shutting_down_ = false;
};

}  // namespace dbms
