#include "dbms/main_loop.h"

#include <algorithm>
#include <utility>

#include "dbms/subscribers.h"
#include "dbms/tsdb_callbacks.h"
#include "error/exception.h"
#include "io/exception.h"
#include "log/log.h"

namespace dbms {

namespace {
const logging::Logger logger{"dbms"};
}

MainLoop::MainLoop(Services& services, const Parts& parts, std::vector<idle::IdleTask*> tasks)
    : services_(services),
      messenger_(parts.messenger),
      journal_(parts.journal),
      dispatcher_(parts.dispatcher),
      introspection_(parts.introspection),
      log_mask_(parts.log_mask),
      control_(parts.control),
      tasks_(std::move(tasks)),
      span_clock_(services.clock),
      deferred_evaluations_(span_clock_),
      log_flags_(span_clock_) {
    services_.queue.on_end([this](queues::queue_t peer) {
        services_.subscribers.lose(peer);
        if (peer == queues::queue_t::tsdb) time_series_ended_ = true;
    });
    selector_.add(services_.queue.front(), 0);
    selector_.add(deferred_evaluations_, 0);
    selector_.add(log_flags_, 0);
    arm_log_flag_timer();
    if (control_ == nullptr) return;
    control_->join(selector_);
    tasks_.push_back(control_);
}

MainLoop::~MainLoop() {
    if (control_ != nullptr) control_->leave();
    selector_.remove(log_flags_);
    selector_.remove(deferred_evaluations_);
    selector_.remove(services_.queue.front());
    services_.queue.on_end({});
}

void MainLoop::run() {
    while (!stop_) {
        try {
            turn();
        } catch (const io::ENotReady&) {
            do_idle_work();
        }
    }
}

bool MainLoop::idle_work_waits() const {
    return !shutting_down_ &&
           std::any_of(tasks_.begin(), tasks_.end(),
                       [](const idle::IdleTask* task) { return task->has_work(); });
}

void MainLoop::turn() {
    arm_deferred_timer();
    io::Selectable& ready =
        selector_.select(idle_work_waits() ? io::wait_t::non_blocking : io::wait_t::blocking);
    if (control_ != nullptr && control_->handle(ready)) return;
    if (&ready == &log_flags_) return refresh_log_mask();
    if (&ready == &deferred_evaluations_)
        return for_subscribers([](Subscribers& subscribers) { subscribers.run_deferred(); });
    if (&ready != &services_.queue.front())
        error::fail_assertion("dbms got unexpected selectable: " + ready.nameText());
    try {
        take_event();
    } catch (const io::EEndOfStream& gone) {
        logger.info("Lost peer: {}", gone.text());
    }
    if (control_ != nullptr) control_->push();
}

void MainLoop::do_idle_work() {
    if (shutting_down_) return;
    for (idle::IdleTask* task : tasks_)
        if (task->has_work()) task->doWork();
}

void MainLoop::take_event() {
    run_periodic_step();
    const std::unique_ptr<queues::event> received = services_.queue.read();
    if (received == nullptr) {
        services_.subscribers.drop_lost();
        if (std::exchange(time_series_ended_, false))
            services_.tsdb_callbacks.fail_all("The time series store ended");
        stop_ = services_.queue.lost_peers().test(queues::queue_t::main);
        return;
    }
    if (received->number() == queues::SYS_EXIT) return begin_shutdown();
    if (introspection_.consumed(*received)) return;
    if (dispatcher_.finish_callback(*received)) return;
    dispatcher_.dispatch(*received);
    for_subscribers([&](Subscribers& subscribers) {
        subscribers.tqlPeriodicUpdate(received->peer, queues::event_name(received.get()));
    });
}

void MainLoop::run_periodic_step() {
    try {
        journal_.journal_checkpoint();
    } catch (const errors::stdanomaly& failure) {
        logger.warning("Database anomaly: {}", failure.text());
    }
}

void MainLoop::refresh_log_mask() {
    if (log_mask_.refresh()) logger.info("Log mask is now {:#x}", log_mask_.value());
    arm_log_flag_timer();
}

void MainLoop::arm_log_flag_timer() {
    log_flags_.set_expiry(Time::now(span_clock_) + Time(logging::ChannelMask::kRefreshEvery_s));
}

void MainLoop::arm_deferred_timer() {
    const auto due_us = services_.subscribers.next_deferred_us();
    deferred_evaluations_.set_expiry(due_us ? Time(static_cast<int32_t>(*due_us / 1'000'000),
                                                   static_cast<int32_t>(*due_us % 1'000'000))
                                            : Time::far_future());
}

template <class Step>
void MainLoop::for_subscribers(Step&& step) {
    try {
        step(services_.subscribers);
    } catch (const errors::stdanomaly& failure) {
        logger.warning("Database anomaly: {}", failure.text());
    }
}

void MainLoop::begin_shutdown() {
    if (shutting_down_) return;
    logger.info("Initiating shutdown");
    shutting_down_ = true;
    services_.subscribers.shut_down();
    if (control_ != nullptr) control_->stop("The server is stopping");
    // With the main process gone meanwhile the consent counts as given.
    if (!messenger_.shutdownInitiated()) messenger_.initiateShutdown();
}

}  // namespace dbms
