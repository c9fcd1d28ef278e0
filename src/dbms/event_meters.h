// How long events take: over all events, for each sender and for each event number.
#pragma once

#include <cstdint>
#include <map>

#include "meter/meter.h"
#include "queues/event_types.h"

namespace dbms {

class EventMeters {
  public:
    /// One at a time, since its metrics have fixed names.
    EventMeters();
    EventMeters(const EventMeters&) = delete;
    EventMeters& operator=(const EventMeters&) = delete;

    /// Takes in one event that took `elapsed_us` microseconds.
    void add(queues::queue_t sender, queues::event_t number, uint64_t elapsed_us);

  private:
    template <class Key>
    using Timings = std::map<Key, meter::TimingValue>;

    Timings<queues::queue_t> by_sender_;
    Timings<queues::event_t> by_number_;

    meter::Group group_{"event"};
    meter::MicroSecondTiming all_{&group_, "time", "The time spent processing events"};
    meter::Table senders_;
    meter::MicroSecondTiming sender_time_{
        &senders_, "time", "The time spent processing events originating from this process"};
    meter::Table numbers_;
    meter::MicroSecondTiming number_time_{&numbers_, "time",
                                          "The time spent processing this type of event"};
};

}  // namespace dbms
