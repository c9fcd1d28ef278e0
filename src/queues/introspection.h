// What every process of the family lets the others look into and set while it runs: its metrics and
// the levels of its loggers.
//
//   "GET_METRIC"        the value at a path, or "RETURN_METRIC_ERROR" with the reason
//   "GET_METRIC_TYPE"   name, unit, description and sort of the metric at a path, or the same error
//   "LIST_METRICS"      the whole tree with the instances of its tables
//   "SET_LOG_LEVEL"     levels by logger; no answer
//
// A main loop offers it every event before its own dispatch.
#pragma once

#include "meter/meter.h"
#include "platform/clock.h"
#include "queues/childqueue.h"
#include "queues/event.h"

namespace queues {

class Introspection {
  public:
    /// Tells the main process that metrics can be asked for. All references outlive this object.
    /// Throws io::EEndOfStream when the main process is gone.
    Introspection(childqueue& queue, const meter::Tree& metrics, const platform::Clock& clock);

    /// True for the four events above, which have been seen to then. Throws io::EEndOfStream when
    /// the asker is gone.
    [[nodiscard]] bool consumed(const event& received);

  private:
    template <event_t N>
    void reply(const event& asked, record_t<N> record);
    void answer_value(const event& asked);
    void answer_type(const event& asked);

    childqueue& queue_;
    const meter::Tree& metrics_;
    const platform::Clock& clock_;
};

}  // namespace queues
