#include "dbms/event_meters.h"

#include <algorithm>

namespace dbms {

namespace {

/// The value under the endpoint with this text.
template <class Value>
const Value& get(const std::map<queues::queue_t, Value>& values, std::string_view instance) {
    const auto found = std::find_if(values.begin(), values.end(), [&](const auto& entry) {
        return queues::queue_name(entry.first) == instance;
    });
    if (found == values.end()) throw meter::ENoSuchInstance("No such instance");
    return found->second;
}

template <class Keys>
std::vector<std::string> names(const Keys& keys) {
    std::vector<std::string> result;
    for (const queues::queue_t key : keys) result.push_back(queues::queue_name(key));
    return result;
}

template <class Value>
std::set<queues::queue_t> keys(const std::map<queues::queue_t, Value>& values) {
    std::set<queues::queue_t> result;
    for (const auto& [key, value] : values) result.insert(key);
    return result;
}

}  // namespace

EventMeters::EventMeters()
    : process_table_(
          &group_, "proc", [this] { return names(keys(processes_)); },
          [this](std::string_view instance) {
              const Process& process = shown_process(instance);
              events_.set(process.events);
              held_.set(process.held);
              caused_.set(process.caused);
          }),
      subscriber_table_(
          &process_table_, "subscr", [this] { return subscribers(); },
          [this](std::string_view instance) {
              if (shown_ == nullptr) throw meter::ENoSuchInstance("No such instance");
              caused_for_.set(get(shown_->caused_for, instance));
          }),
      number_table_(
          &group_, "type",
          [this] {
              std::vector<std::string> seen;
              for (size_t number = 0; number < numbers_.size(); ++number)
                  if (numbers_[number].count > 0)
                      seen.push_back(queues::event_name(static_cast<queues::event_t>(number)));
              return seen;
          },
          [this](std::string_view instance) {
              for (size_t number = 0; number < numbers_.size(); ++number)
                  if (numbers_[number].count > 0 &&
                      queues::event_name(static_cast<queues::event_t>(number)) == instance)
                      return number_time_.set(numbers_[number]);
              throw meter::ENoSuchInstance("No such instance");
          }) {}

void EventMeters::add(queues::queue_t sender, queues::event_t number, uint64_t elapsed_us) {
    all_.add(elapsed_us);
    processes_[sender].events.add(elapsed_us);
    const auto index = static_cast<size_t>(number);
    if (index < numbers_.size()) numbers_[index].add(elapsed_us);
}

void EventMeters::add_subscription(queues::queue_t subscriber, queues::queue_t cause,
                                   uint64_t elapsed_us) {
    processes_[subscriber].held.add(elapsed_us);
    Process& origin = processes_[cause];
    origin.caused.add(elapsed_us);
    origin.caused_for[subscriber].add(elapsed_us);
}

const EventMeters::Process& EventMeters::shown_process(std::string_view instance) {
    shown_ = &get(processes_, instance);
    return *shown_;
}

// Of all processes, since a list of the tree names a table once. A pair that never occurred is an
// instance that doesn't exist.
std::vector<std::string> EventMeters::subscribers() const {
    std::set<queues::queue_t> all;
    for (const auto& [cause, process] : processes_) all.merge(keys(process.caused_for));
    return names(all);
}

}  // namespace dbms
