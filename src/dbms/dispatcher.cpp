#include "dbms/dispatcher.h"

#include <new>

#include "dbms/event_meters.h"
#include "dbms/tsdb_callbacks.h"
#include "error/exception.h"
#include "io/exception.h"
#include "log/log.h"

namespace dbms {

namespace {

const logging::Logger logger{"dbms"};
constexpr uint64_t kSlowEventUs = 1'000'000;

/// Sets the sender for the length of one handler call.
class SenderScope {
  public:
    SenderScope(queues::queue_t& place, queues::queue_t sender)
        : place_(place), previous_(std::exchange(place, sender)) {}
    ~SenderScope() { place_ = previous_; }
    SenderScope(const SenderScope&) = delete;
    SenderScope& operator=(const SenderScope&) = delete;

  private:
    queues::queue_t& place_;
    queues::queue_t previous_;
};

}  // namespace

Dispatcher::Dispatcher(Services& services, EventTable table, EventTrace& trace,
                       std::function<Leftovers()> leftovers)
    : services_(services), table_(table), trace_(trace), leftovers_(std::move(leftovers)) {}

void Dispatcher::dispatch(queues::event& received) {
    const auto number = static_cast<size_t>(received.number());
    error::check(received.number() >= 0 && number <= queues::INVALID_TAIL,
                 "DBMS got event beyond INVALID_TAIL");
    const EventRow row = number < table_.size() ? table_[number] : EventRow{};
    EventContext context{services_,
                         {.engine = services_.engine,
                          .clock = services_.clock,
                          .sender = received.peer,
                          .new_version = {},
                          .user = {}}};
    if (row.filter == nullptr || row.filter(context, received)) run_handler(context, row, received);
    verify_nothing_left(received);
}

void Dispatcher::run_handler(EventContext& context, const EventRow& row, queues::event& received) {
    try {
        timed_handler(context, row, received);
    } catch (const errors::stdanomaly& failure) {
        logger.warning("Database anomaly: {}", failure.text());
        answer_failure(row, received, failure.text());
    } catch (const io::EEndOfStream& gone) {
        logger.info("Lost peer: {}", gone.text());
        if (gone.peer_id() != static_cast<uint32_t>(received.peer))
            answer_failure(row, received, gone.text());
    } catch (const error::Exception& failure) {
        logger.error("Exception during {} : {}", queues::event_name(&received), failure.text());
        throw;
    } catch (const std::bad_alloc&) {
        logger.error("Out of memory during {} from {}", queues::event_name(&received),
                     queues::queue_name(received.peer));
        throw;
    }
}

void Dispatcher::timed_handler(EventContext& context, const EventRow& row,
                               queues::event& received) {
    const SenderScope sender(last_event_sender_, received.peer);
    const uint64_t start_us = services_.clock.monotonic_us();
    trace_.begin();
    if (row.handler != nullptr)
        row.handler(context, received);
    else
        logger.warning("Got unhandled message: {} from: {}", queues::event_name(&received),
                       queues::queue_name(received.peer));
    const uint64_t elapsed_us = services_.clock.monotonic_us() - start_us;
    if (trace_.active()) trace_.end(elapsed_us, queues::event_name(&received));
    if (elapsed_us > kSlowEventUs)
        logger.warning("Event {} took {} sec.", queues::event_name(&received),
                       static_cast<double>(elapsed_us) / 1e6);
    services_.meters.add(received.peer, received.number(), elapsed_us);
}

bool Dispatcher::finish_callback(const queues::event& received) {
    if (!services_.tsdb_callbacks.awaits(received)) return false;
    const uint64_t start_us = services_.clock.monotonic_us();
    trace_.begin();
    const std::string name = services_.tsdb_callbacks.take(received);
    const uint64_t elapsed_us = services_.clock.monotonic_us() - start_us;
    if (trace_.active()) trace_.end(elapsed_us, "Callback: " + name);
    services_.meters.add(received.peer, received.number(), elapsed_us);
    return true;
}

void Dispatcher::answer_failure(const EventRow& row, const queues::event& received,
                                const std::string& text) {
    if ((row.reply_flags & kAnswered) == 0 || !queues::wants_reply(received.uid)) return;
    try {
        services_.queue.send(queues::exevent(received.peer, received.uid, text));
    } catch (const io::EEndOfStream& gone) {
        logger.info("Lost peer: {}", gone.text());
    }
}

void Dispatcher::verify_nothing_left(const queues::event& handled) const {
    const Leftovers left = leftovers_();
    if (left.active_transaction)
        error::fail_assertion("Active transaction after processing " +
                              queues::event_name(&handled));
    if (left.referenced_objects > 0)
        error::fail_assertion(fmt::format("{} referenced objects exist after {}",
                                          left.referenced_objects, queues::event_name(&handled)));
}

}  // namespace dbms
