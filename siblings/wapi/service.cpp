#include "wapi/service.h"

#include <algorithm>
#include <limits>

#include "io/exception.h"
#include "log/log.h"
#include "platform/fifo.h"
#include "queues/dialogs.h"
#include "queues/log_outlet.h"
#include "queues/records/control.h"

namespace wapi {

namespace {

const logging::Logger logger{"wapi"};

constexpr uint32_t kOwnId = static_cast<uint32_t>(queues::queue_t::wapi);
constexpr queues::queue_t kMain = queues::queue_t::main;
constexpr queues::queue_t kServer = queues::queue_t::dbms;
constexpr int kNoValue = 0;

uint16_t port_of(const control::Server_Configuration_Fields& configuration) {
    if (configuration.wapi_port > std::numeric_limits<uint16_t>::max())
        throw error::EFatal(fmt::format("wapi_port {} is no port", configuration.wapi_port));
    return static_cast<uint16_t>(configuration.wapi_port);
}

}  // namespace

Service::Service(io::ChildMessenger& messenger, queues::childqueue& queue,
                 const platform::Clock& clock, uint16_t port)
    : messenger_(messenger),
      queue_(queue),
      clock_(clock),
      http_(port, *this),
      gateway_(*this, clock),
      streams_(*this, clock),
      metrics_(*this, clock),
      series_(*this, clock),
      http_ready_(http_.epoll_fd(), "http"),
      span_clock_(clock),
      timer_(span_clock_) {
    selector_.add(queue_.front(), kNoValue);
    selector_.add(http_ready_, kNoValue);
    selector_.add(timer_, kNoValue);
}

Service::~Service() {
    selector_.remove(timer_);
    selector_.remove(http_ready_);
    selector_.remove(queue_.front());
}

void Service::run() {
    introspection_.emplace(queue_, own_metrics_, clock_);
    queue_.send(queues::devent<queues::INIT_OK>(kMain, 0, {.depend_on = {kServer}}));
    logger.info("Listening on http://127.0.0.1:{}", http_.port());
    while (!stopped_) {
        arm_timer();
        const io::Selectable& ready = selector_.select(io::wait_t::blocking);
        if (&ready == &queue_.front()) take_event();
        for (Endpoint* each : endpoints_) each->check_deadlines();
        http_.run();
        shut_down_if_answered();
    }
}

void Service::arm_timer() {
    std::optional<uint64_t> wait_us;
    const auto at_most = [&](uint64_t us) { wait_us = std::min(wait_us.value_or(us), us); };
    const uint64_t now_us = clock_.monotonic_us();
    const auto until = [&](uint64_t moment_us) {
        at_most(moment_us > now_us ? moment_us - now_us : 0);
    };
    if (const auto left_ms = http_.timeout_ms()) at_most(*left_ms * 1000);
    for (const Endpoint* each : endpoints_)
        if (const auto deadline_us = each->next_deadline_us()) until(*deadline_us);
    if (answering_until_us_) until(*answering_until_us_);
    if (!wait_us) return timer_.set_expiry(Time::far_future());
    timer_.set_expiry(Time::now(span_clock_) + Time(static_cast<int32_t>(*wait_us / 1'000'000),
                                                    static_cast<int32_t>(*wait_us % 1'000'000)));
}

void Service::take_request(token_t token, const Request& request) {
    const auto found = std::find_if(endpoints_.begin(), endpoints_.end() - 1,
                                    [&](Endpoint* each) { return each->serves(request.path); });
    (*found)->take_request(token, request);
}

bool Service::send(const queues::event& sent) {
    try {
        queue_.send(sent);
        return true;
    } catch (const io::EEndOfStream&) {
        return false;
    }
}

void Service::take_event() {
    // Which stream ended can't be told from the queue's bits alone: one that was set before stays
    // set until that peer speaks again.
    const bool from_messenger = queue_.waiting() == 0;
    const auto sender =
        from_messenger ? static_cast<queues::queue_t>(messenger_.nextSender()) : kMain;
    const std::unique_ptr<queues::event> received = queue_.read();
    if (received == nullptr) return note_end_of(sender);
    try {
        dispatch(*received);
    } catch (const io::EEndOfStream& gone) {
        logger.info("Lost peer: {}", gone.text());
    }
}

void Service::dispatch(const queues::event& received) {
    if (received.number() == queues::SYS_EXIT)
        begin_stop();
    else if (!introspection_->consumed(received) &&
             std::none_of(endpoints_.begin(), endpoints_.end(),
                          [&](Endpoint* each) { return each->take_event(received); }))
        logger.info("Got unhandled message: {} from: {}", queues::event_name(&received),
                    queues::queue_name(received.peer));
}

void Service::note_end_of(queues::queue_t peer) {
    for (Endpoint* each : endpoints_) each->peer_lost(peer);
    if (peer == kMain) {
        stop_answering();
        stopped_ = true;
    }
}

void Service::stop_answering() {
    for (Endpoint* each : endpoints_) each->stop();
}

void Service::begin_stop() {
    if (answering_until_us_ || messenger_.shutdownInitiated()) return;
    logger.info("Initiating shutdown");
    stop_answering();
    http_.stop_listening();
    answering_until_us_ = clock_.monotonic_us() + kAnsweringLimit_us;
}

void Service::shut_down_if_answered() {
    // With the main process gone there is nobody to ask.
    if (!answering_until_us_ || messenger_.shutdownInitiated()) return;
    if (http_.open_exchanges() > 0 && clock_.monotonic_us() < *answering_until_us_) return;
    answering_until_us_.reset();
    messenger_.initiateShutdown();
}

int run_process() {
    platform::ignore_broken_pipe_signal();
    const platform::SystemClock clock;
    io::ChildMessenger messenger(kOwnId, "smem");
    queues::childqueue queue(messenger, clock);
    {
        queues::log_outlet outlet(queue);
        const logging::OutletScope scope(
            [&](logging::level_t level, std::string_view line) { outlet.write(level, line); });
        const auto configuration = queues::server_configuration(&queue);
        Service service(messenger, queue, clock, port_of(configuration));
        service.run();
    }
    messenger.completeShutdown();
    return 0;
}

}  // namespace wapi
