#include "dbms/event_meters.h"

namespace dbms {

namespace {

template <class Timings, class NameOf>
std::vector<std::string> names(const Timings& timings, NameOf name_of) {
    std::vector<std::string> result;
    for (const auto& [key, value] : timings) result.push_back(name_of(key));
    return result;
}

template <class Timings, class NameOf>
const meter::TimingValue& get(const Timings& timings, std::string_view instance, NameOf name_of) {
    for (const auto& [key, value] : timings)
        if (name_of(key) == instance) return value;
    throw meter::ENoSuchInstance("No such instance");
}

std::string number_name(queues::event_t number) {
    return queues::event_name(number);
}

}  // namespace

EventMeters::EventMeters()
    : senders_(
          &group_, "proc", [this] { return names(by_sender_, queues::queue_name); },
          [this](std::string_view instance) {
              sender_time_.set(get(by_sender_, instance, queues::queue_name));
          }),
      numbers_(
          &group_, "type", [this] { return names(by_number_, number_name); },
          [this](std::string_view instance) {
              number_time_.set(get(by_number_, instance, number_name));
          }) {}

void EventMeters::add(queues::queue_t sender, queues::event_t number, uint64_t elapsed_us) {
    all_.add(elapsed_us);
    by_sender_[sender].add(elapsed_us);
    by_number_[number].add(elapsed_us);
}

}  // namespace dbms
