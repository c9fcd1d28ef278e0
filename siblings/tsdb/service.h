// The process `tsdb`: the store of time series as a member of the family.
//
//   running --"SYS_EXIT"--> shutting down --end of stream from the main process--> stopped
//      \--------------------end of stream from the main process---------------------^
//
// While it is shutting down it still takes what arrives, but can answer nobody.
#pragma once

#include "io/selector.h"
#include "io/sibling_messenger.h"
#include "io/timer.h"
#include "platform/span_clock.h"
#include "queues/childqueue.h"
#include "queues/introspection.h"
#include "tsdb/requests.h"

namespace tsdb {

class Service {
  public:
    /// All references outlive the service.
    Service(io::ChildMessenger& messenger, queues::childqueue& queue,
            queues::Introspection& introspection, const platform::Clock& clock,
            Requests::Open open);
    ~Service();

    /// Says that it is ready, and returns when the main process has let it go or is gone, with all
    /// data committed.
    void run();

  private:
    void arm_timer();
    void take_event();
    void dispatch(const queues::event& received);
    void send(const queues::event& sent);

    io::ChildMessenger& messenger_;
    queues::childqueue& queue_;
    queues::Introspection& introspection_;
    const platform::Clock& clock_;
    Requests requests_;
    platform::SpanClock span_clock_;
    io::Timer timer_;
    io::Selector<int> selector_;
    bool stopped_ = false;
};

/// The whole life of the process; gives its exit code.
[[nodiscard]] int run_process();

}  // namespace tsdb
