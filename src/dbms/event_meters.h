// How long the server works for whom: on events by sender and by number, and on subscriptions by
// the process that subscribed and by the one whose update they follow.
//
//   event/time                            all events
//   event/type/NUMBER/time                events of one number, under its name
//   event/proc/SENDER/time                events of one sender
//   event/proc/SENDER/pasv_time           subscriptions that this process holds
//   event/proc/SENDER/trig_time           subscriptions evaluated because of its updates
//   event/proc/SENDER/subscr/OTHER/time   subscriptions of OTHER, because of updates of SENDER
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>

#include "meter/meter.h"
#include "queues/event_types.h"

namespace dbms {

class EventMeters {
  public:
    /// One at a time, since its metrics have fixed names.
    EventMeters();
    EventMeters(const EventMeters&) = delete;
    EventMeters& operator=(const EventMeters&) = delete;

    /// Takes in one event that took `elapsed_us` microseconds. Events beyond the catalogue count
    /// for their sender only.
    void add(queues::queue_t sender, queues::event_t number, uint64_t elapsed_us);

    /// Takes in one evaluation of a subscription of `subscriber`, patch or whole, that an update by
    /// `cause` gave rise to. An evaluation with no such update has the subscriber itself as cause.
    void add_subscription(queues::queue_t subscriber, queues::queue_t cause, uint64_t elapsed_us);

  private:
    using BySubscriber = std::map<queues::queue_t, meter::TimingValue>;
    struct Process {
        meter::TimingValue events, held, caused;
        BySubscriber caused_for;
    };

    [[nodiscard]] const Process& shown_process(std::string_view instance);
    [[nodiscard]] std::vector<std::string> subscribers() const;

    std::map<queues::queue_t, Process> processes_;
    std::array<meter::TimingValue, queues::kEventTableSize> numbers_{};
    /// The process that the tables show; null for none yet.
    const Process* shown_ = nullptr;

    meter::Group group_{"event"};
    meter::MicroSecondTiming all_{&group_, "time", "The time spent processing events"};
    meter::Table process_table_;
    meter::MicroSecondTiming events_{
        &process_table_, "time", "The time spent processing events originating from this process"};
    meter::MicroSecondTiming held_{&process_table_, "pasv_time",
                                   "The time spent processing subscriptions by this process"};
    meter::MicroSecondTiming caused_{
        &process_table_, "trig_time",
        "The time spent processing subscriptions triggered by updates from this process"};
    meter::Table subscriber_table_;
    meter::MicroSecondTiming caused_for_{&subscriber_table_, "time",
                                         "The time spent processing subscriptions by the inner "
                                         "process, because of updates by the outer process"};
    meter::Table number_table_;
    meter::MicroSecondTiming number_time_{&number_table_, "time",
                                          "The time spent processing this type of event"};
};

}  // namespace dbms
