// The dispatcher: from an event to its handler and back. It times every event, turns what a handler
// throws into its consequence, and verifies after every event what must hold between two of them.
//
// What an exception out of a handler means:
//   errors::stdanomaly   the request failed: logged, and answered by an exception event if the
//                        sender waits; the process goes on
//   io::EEndOfStream     a peer is gone: logged, and answered likewise unless it is the sender
//                        itself that is gone; the process goes on
//   error::Exception     anything else ends the process: logged and thrown on
//   std::bad_alloc       likewise
#pragma once

#include <cstdint>
#include <functional>

#include "dbms/event_table.h"
#include "dbms/event_trace.h"
#include "dbms/services.h"

namespace dbms {

/// What must not be left over when an event has been handled.
struct Leftovers {
    bool active_transaction = false;
    uint64_t referenced_objects = 0;
};

class Dispatcher {
  public:
    /// `leftovers` tells what is left over right now. All references outlive the dispatcher.
    Dispatcher(Services& services, EventTable table, EventTrace& trace,
               std::function<Leftovers()> leftovers);

    /// Handles one event. Throws what ends the process. A number beyond the catalogue and anything
    /// left over are fatal assertions.
    void dispatch(queues::event& received);

    /// False for an event that is no reply of the time series store that somebody waits for. Such a
    /// one is handed to who does; it counts and is traced as an event is.
    [[nodiscard]] bool finish_callback(const queues::event& received);

    /// The sender of the event being handled; none between events.
    [[nodiscard]] queues::queue_t last_event_sender() const noexcept { return last_event_sender_; }

  private:
    void run_handler(EventContext& context, const EventRow& row, queues::event& received);
    void timed_handler(EventContext& context, const EventRow& row, queues::event& received);
    void answer_failure(const EventRow& row, const queues::event& received,
                        const std::string& text);
    void verify_nothing_left(const queues::event& handled) const;

    Services& services_;
    EventTable table_;
    EventTrace& trace_;
    std::function<Leftovers()> leftovers_;
    queues::queue_t last_event_sender_ = queues::queue_t::none;
};

}  // namespace dbms
