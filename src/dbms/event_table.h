// Which function handles which event. One row for each event that this server takes; everything
// that the dispatcher needs to know of a number stands in its row.
#pragma once

#include <array>

#include "dbms/services.h"
#include "queues/event.h"

namespace dbms {

/// Handles an event and answers it, if at all, through the queue.
using Handler = void (*)(EventContext&, queues::event&);
/// Runs before the handler, may change the record, and says whether the handler is to run.
using Filter = bool (*)(EventContext&, queues::event&);

/// The sender waits: an anomaly in the handler is answered with an exception event.
inline constexpr uint32_t kAnswered = 4;

struct EventRow {
    Handler handler = nullptr;
    Filter filter = nullptr;
    uint32_t reply_flags = 0;
};

/// Indexed by event number.
using EventTable = std::array<EventRow, queues::kEventTableSize>;

/// The events that this server takes.
[[nodiscard]] EventTable make_event_table();

}  // namespace dbms
