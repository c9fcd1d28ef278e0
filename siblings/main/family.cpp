#include "main/family.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "error/exception.h"
#include "io/exception.h"
#include "main/instance_lock.h"
#include "platform/crash_dump.h"
#include "platform/random.h"
#include "queues/records/control.h"
#include "queues/wire_error.h"

namespace mainprocess {

namespace {

/// Who leaves more than this unread of what it was told would take the room for all others.
constexpr uint64_t kMostUnreadBytes = 512U << 10;
/// How often all siblings are looked at without any other reason.
constexpr int64_t kLookEvery_ms = 5000;
constexpr const char* kMessengerName = "smem";

constexpr const char* kOwnName = "main";

LogLimits log_limits(const Config& config) {
    LogLimits limits = config.log_limits;
    limits.days_kept = config.server.log_days;
    return limits;
}

uint32_t sibling_id(queues::queue_t queue) {
    return static_cast<uint32_t>(queue);
}

}  // namespace

Family::Family(Config config, const platform::Clock& clock, int stop_fd)
    : config_(std::move(config)),
      clock_(clock),
      lock_(take_instance_lock(config_.server.smem_prefix)),
      log_(config_.log_dir, log_limits(config_), clock_),
      outlet_([this](logging::level_t, std::string_view line) { log_.write(kOwnName, line); }),
      variables_(config_.server.variable_file),
      messenger_(config_.server.smem_prefix, config_.server.smem_size, *this),
      queue_(messenger_, clock_),
      stop_order_(stop_fd, "stop order"),
      span_clock_(clock_),
      timer_(span_clock_) {
    for (const SiblingConfig& sibling : config_.siblings)
        if (sibling.enabled)
            siblings_.push_back(
                std::make_unique<SupervisedSibling>(sibling, config_.restart, config_.patience));
    queue_.never_wait_for_rest();
    selector_.add(queue_.front(), 0);
    selector_.add(stop_order_, 0);
    selector_.add(timer_, 0);
}

Family::~Family() {
    for (const auto& sibling : siblings_) {
        sibling->kill_now();
        if (sibling->has_process()) selector_.remove(sibling->end());
        leave_errors(*sibling);
    }
    selector_.remove(timer_);
    selector_.remove(stop_order_);
    selector_.remove(queue_.front());
}

int Family::run() {
    say(fmt::format("Family starts; pool of {} bytes, {} siblings", config_.server.smem_size,
                    siblings_.size()));
    start_what_may_start();
    while (!(stopping_ && all_stopped())) {
        arm_timer();
        io::Selectable& ready = selector_.select(io::wait_t::blocking);
        if (&ready == &queue_.front()) {
            take_event();
        } else if (&ready == &stop_order_) {
            on_stop_signal();
        } else if (&ready == &timer_) {
            look_at_deadlines();
        } else {
            look_after(ready);
        }
    }
    say("Family has stopped");
    return killed_ ? 1 : 0;
}

void Family::look_after(io::Selectable& ready) {
    for (const auto& sibling : siblings_) {
        if (sibling->has_process() && &ready == &sibling->end()) return note_end(*sibling);
        if (sibling->errors() != nullptr && &ready == &sibling->errors()->readable())
            return take_errors(*sibling);
    }
}

// ---- supervision --------------------------------------------------------------------------------

// Each process that was started here comes up once.
bool Family::admits(uint32_t id) {
    const SupervisedSibling* sibling = find(static_cast<queues::queue_t>(id));
    return sibling != nullptr && sibling->has_process() && messenger_.isGone(id);
}

uint32_t Family::sliceSize(uint32_t id) {
    const SupervisedSibling* sibling = find(static_cast<queues::queue_t>(id));
    return sibling == nullptr ? kOwnSliceBytes : sibling->config().slice_size_bytes;
}

bool Family::requestPeer(uint32_t asker, uint32_t wanted) {
    const queues::queue_t queue = static_cast<queues::queue_t>(wanted);
    const bool granted = !stopping_ && find(queue) != nullptr;
    if (!granted)
        say(fmt::format("{} asked for {}, which is not run here",
                        queues::queue_name(static_cast<queues::queue_t>(asker)),
                        queues::queue_name(queue)));
    return granted;
}

SupervisedSibling* Family::find(queues::queue_t queue) {
    for (const auto& sibling : siblings_)
        if (sibling->config().queue == queue) return sibling.get();
    return nullptr;
}

int64_t Family::now_ms() const {
    return static_cast<int64_t>(clock_.monotonic_us() / 1000);
}

bool Family::is_up(queues::queue_t queue) const {
    return std::any_of(siblings_.begin(), siblings_.end(), [&](const auto& sibling) {
        return sibling->config().queue == queue &&
               sibling->state() == SupervisedSibling::state_t::up;
    });
}

void Family::start_what_may_start() {
    if (stopping_) return;
    for (const auto& sibling : siblings_) {
        if (sibling->state() != SupervisedSibling::state_t::waiting) continue;
        const auto& needed = sibling->config().depend_on;
        if (std::all_of(needed.begin(), needed.end(), [&](queues::queue_t queue) {
                return is_up(queue) || find(queue) == nullptr;
            }))
            start(*sibling);
    }
}

void Family::start(SupervisedSibling& sibling) {
    const io::PoolAccess& access = messenger_.access();
    try {
        auto environment = access.toEnvironment(kMessengerName);
        environment.emplace_back(platform::kCrashDirectoryVariable, crash_directory());
        sibling.start({.program = sibling.config().program,
                       .arguments = {},
                       .environment = std::move(environment),
                       .inherited_fds = {access.map_fd},
                       .own_process_group = true,
                       .ends_with_parent = true},
                      now_ms());
        selector_.add(sibling.end(), 0);
        selector_.add(sibling.errors()->readable(), 0);
        messenger_.watchEnd(sibling_id(sibling.config().queue), sibling.pid());
        say(fmt::format("Started {}", sibling.config().name));
    } catch (const error::ESystemError& failure) {
        say(fmt::format("Cannot start {}: {}", sibling.config().name, failure.text()),
            logging::level_t::error);
        // Those who asked for it wait in vain for now.
        if (!sibling.has_process()) messenger_.siblingGone(sibling_id(sibling.config().queue));
    }
}

/// Where processes whose programs lie in a folder that they can't write to leave their dumps.
std::string Family::crash_directory() const {
    if (config_.log_dir.empty()) return {};
    return std::filesystem::absolute(config_.log_dir).string();
}

void Family::note_end(SupervisedSibling& sibling) {
    const bool asked = sibling.state() == SupervisedSibling::state_t::stopping;
    selector_.remove(sibling.end());
    if (sibling.errors() != nullptr)
        for (const std::string& line : sibling.errors()->take_all()) log_error_line(sibling, line);
    leave_errors(sibling);
    const std::string how = sibling.ended(now_ms());
    if (stopping_) sibling.request_stop(0);  // nobody starts it again
    messenger_.siblingGone(sibling_id(sibling.config().queue));
    needs_.erase(sibling.config().queue);
    questions_.erase(sibling.config().queue);
    if (asked)
        say(fmt::format("{} stopped with {}", sibling.config().name, how));
    else if (stopping_)
        say(fmt::format("{} ended unexpectedly with {}", sibling.config().name, how),
            logging::level_t::error);
    else
        say(fmt::format("{} ended unexpectedly with {}, starting it again in {} ms",
                        sibling.config().name, how,
                        std::max<int64_t>(0, *sibling.next_deadline_ms() - now_ms())),
            logging::level_t::error);
    if (stopping_) stop_what_may_stop();
}

void Family::take_errors(SupervisedSibling& sibling) {
    for (const std::string& line : sibling.errors()->take()) log_error_line(sibling, line);
    if (sibling.errors()->has_ended()) leave_errors(sibling);
}

void Family::log_error_line(const SupervisedSibling& sibling, const std::string& line) {
    // A log line that found no other way says itself what it is.
    constexpr std::string_view kLogLine = "Log: ";
    if (line.starts_with(kLogLine))
        log_.write(sibling.config().name, std::string_view(line).substr(kLogLine.size()));
    else
        log_.write(sibling.config().name, "stderr", logging::level_t::error, line);
}

void Family::leave_errors(SupervisedSibling& sibling) {
    if (sibling.errors() == nullptr) return;
    selector_.remove(sibling.errors()->readable());
    sibling.leave_errors();
}

void Family::look_at_deadlines() {
    end_overdue_stops();
    for (const auto& sibling : siblings_) look_at(*sibling);
    next_look_ms_ = now_ms() + std::min(kLookEvery_ms, config_.patience.stuck_warning_ms);
    start_what_may_start();
}

void Family::look_at(SupervisedSibling& sibling) {
    const int64_t now = now_ms();
    if (const std::optional<int64_t> waited_ms = sibling.slow_start_ms(now))
        say(fmt::format("{} is not up after {} s; siblings that depend on it wait",
                        sibling.config().name, *waited_ms / 1000),
            logging::level_t::warning);
    look_for_stuck(sibling);
    (void)sibling.due(now);
}

// One that only waits until the others let go of it gets the time anew when it may be one of those
// ended here that it waits for.
void Family::end_overdue_stops() {
    const int64_t now = now_ms();
    std::vector<SupervisedSibling*> overdue, to_end;
    int64_t last_deadline_ms = now;
    for (const auto& sibling : siblings_) {
        if (sibling->state() != SupervisedSibling::state_t::stopping || !sibling->has_process())
            continue;
        last_deadline_ms = std::max(last_deadline_ms, *sibling->next_deadline_ms());
        if (*sibling->next_deadline_ms() <= now) overdue.push_back(sibling.get());
    }
    std::copy_if(overdue.begin(), overdue.end(), std::back_inserter(to_end),
                 [&](const SupervisedSibling* sibling) {
                     return !messenger_.isHeldByOthers(sibling_id(sibling->config().queue));
                 });
    if (to_end.empty() && last_deadline_ms > now) {
        // One whose time ends a moment later may be what they wait for.
        for (SupervisedSibling* sibling : overdue) sibling->request_stop(last_deadline_ms);
        return;
    }
    if (to_end.empty()) to_end = overdue;
    for (SupervisedSibling* sibling : to_end) {
        say(fmt::format("{} did not stop in {} s, ending it by force", sibling->config().name,
                        config_.stop_timeout_s),
            logging::level_t::warning);
        killed_ = true;
        sibling->kill_now();
    }
    for (SupervisedSibling* sibling : overdue)
        sibling->request_stop(now + config_.stop_timeout_s * 1000);
}

void Family::look_for_stuck(SupervisedSibling& sibling) {
    if (!sibling.has_process() || sibling.state() == SupervisedSibling::state_t::stopping) return;
    const queues::queue_t queue = sibling.config().queue;
    const char* what = "is silent in the middle of a record";
    std::optional<uint64_t> since_us = queue_.waits_for_rest_since_us(queue);
    // One that is still starting may have to do before it reads anything.
    if (!since_us && sibling.state() == SupervisedSibling::state_t::up) {
        what = "does not read its signals";
        since_us = messenger_.holdsUpOthersSince_us(sibling_id(queue));
    }
    if (const auto asked = questions_.find(queue); !since_us && asked != questions_.end()) {
        what = "does not answer";
        since_us = asked->second.since_us;
    }
    const int64_t held_up_ms =
        since_us ? static_cast<int64_t>((clock_.monotonic_us() - *since_us) / 1000) : 0;
    const Patience::verdict_t verdict = sibling.judge(held_up_ms);
    const std::string reason = fmt::format("{} for {} s", what, held_up_ms / 1000);
    if (verdict == Patience::verdict_t::warn)
        say(fmt::format("{} {}", sibling.config().name, reason), logging::level_t::warning);
    else if (verdict == Patience::verdict_t::give_up)
        give_up(queue, reason);
    else
        ask_whether_alive(sibling);
}

// By one of its metrics: any answer will do.
void Family::ask_whether_alive(const SupervisedSibling& sibling) {
    const queues::queue_t queue = sibling.config().queue;
    if (!sibling.config().waits_for_nobody || questions_.contains(queue) ||
        sibling.state() != SupervisedSibling::state_t::up)
        return;
    const uint32_t uid = queue_.new_uid();
    try {
        send(queues::devent<queues::GET_METRIC>(queue, uid, {.id = {"metering", "time"}}));
        questions_[queue] = {uid, clock_.monotonic_us()};
    } catch (const io::EEndOfStream&) {
        // It is ending; the end of its process comes as an event of its own.
    }
}

bool Family::says_that_it_lives(const queues::event& received) {
    // Its own requests are numbered too.
    if (received.number() != queues::RETURN_METRIC_TIMING &&
        received.number() != queues::RETURN_METRIC_ERROR)
        return false;
    const auto asked = questions_.find(received.peer);
    if (asked == questions_.end() || asked->second.uid != received.uid) return false;
    questions_.erase(asked);
    return true;
}

void Family::give_up(queues::queue_t queue, std::string_view reason) {
    SupervisedSibling* sibling = find(queue);
    say(fmt::format("{} {}, ending it by force",
                    sibling == nullptr ? queues::queue_name(queue) : sibling->config().name,
                    reason),
        logging::level_t::error);
    if (sibling != nullptr) sibling->kill_now();
}

void Family::arm_timer() {
    int64_t earliest = next_look_ms_;
    for (const auto& sibling : siblings_)
        earliest = std::min(earliest, sibling->next_deadline_ms().value_or(earliest));
    const int64_t left_ms = std::max<int64_t>(1, earliest - now_ms());
    timer_.set_expiry(Time::now(span_clock_) + Time(static_cast<int32_t>(left_ms / 1000),
                                                    static_cast<int32_t>(left_ms % 1000) * 1000));
}

// ---- stop ---------------------------------------------------------------------------------------

void Family::on_stop_signal() {
    signalfd_siginfo signal{};
    if (::read(stop_order_.fd(), &signal, sizeof signal) != sizeof signal) return;
    if (!stopping_)
        begin_stop();
    else if (signal.ssi_signo != SIGHUP)  // which a terminal and its shell both send
        kill_all();
}

void Family::kill_all() {
    say("Asked twice, ending all siblings by force", logging::level_t::warning);
    killed_ = true;
    for (const auto& sibling : siblings_) {
        sibling->request_stop(now_ms() + config_.stop_timeout_s * 1000);
        sibling->kill_now();
    }
}

void Family::begin_stop() {
    stopping_ = true;
    say("Stopping the family");
    for (const auto& sibling : siblings_)
        if (!sibling->has_process()) sibling->request_stop(0);
    stop_what_may_stop();
}

void Family::stop_what_may_stop() {
    bool some_are_stopping = false;
    for (const auto& sibling : siblings_) {
        if (!sibling->has_process()) continue;
        if (sibling->state() != SupervisedSibling::state_t::stopping) {
            if (is_needed(sibling->config().queue)) continue;
            stop(*sibling);
        }
        some_are_stopping = true;
    }
    if (some_are_stopping) return;
    // Those that are left need each other in a circle.
    for (const auto& sibling : siblings_)
        if (sibling->has_process()) stop(*sibling);
}

bool Family::is_needed(queues::queue_t queue) const {
    return std::any_of(siblings_.begin(), siblings_.end(), [&](const auto& other) {
        if (!other->has_process()) return false;
        const auto said = needs_.find(other->config().queue);
        return other->config().depend_on.contains(queue) ||
               (said != needs_.end() && said->second.contains(queue));
    });
}

void Family::stop(SupervisedSibling& sibling) {
    const queues::queue_t queue = sibling.config().queue;
    sibling.request_stop(now_ms() + config_.stop_timeout_s * 1000);
    if (!messenger_.isUp(sibling_id(queue))) {
        sibling.kill_now();  // it has not even connected: there is nothing to stop in order
        return;
    }
    try {
        send(queues::devent<queues::SYS_EXIT>(
            queue, 0, {.reason = 0, .requested_by = queues::queue_t::main, .error_msg = {}}));
    } catch (const io::EEndOfStream&) {
        // It is ending already; the end of its process comes as an event of its own.
    }
}

bool Family::all_stopped() const {
    return std::all_of(siblings_.begin(), siblings_.end(), [](const auto& sibling) {
        return sibling->state() == SupervisedSibling::state_t::stopped;
    });
}

// ---- events from siblings -----------------------------------------------------------------------

void Family::take_event() {
    const auto sender = static_cast<queues::queue_t>(messenger_.nextSender());
    try {
        const std::unique_ptr<queues::event> received = queue_.read();
        if (received != nullptr) dispatch(*received);
    } catch (const io::EEndOfStream& gone) {
        say(fmt::format("Lost peer: {}", gone.text()));
    } catch (const queues::EMalformedRecord& broken) {
        give_up(sender, fmt::format("cannot be understood: {}", broken.text()));
    }
}

void Family::dispatch(queues::event& received) {
    if (says_that_it_lives(received)) return;
    switch (received.number()) {
        case queues::INIT_OK:
            return on_init_ok(received);
        case queues::SYSTEM_LOG_REQUEST:
            return on_log_request(received);
        case queues::REQUEST_SERVER_CONFIGURATION:
            return reply<queues::SERVER_CONFIGURATION>(received, config_.server);
        case queues::REQUEST_SERVER_VARIABLE_FIELDS:
            return reply<queues::RETURN_SERVER_VARIABLE_FIELDS>(
                received, control::Server_Variable_Fields{.vars = variables_.values()});
        case queues::STORE_SERVER_VARIABLE_FIELDS:
            return on_store_variables(received);
        case queues::REQUEST_SPAWN_PROCESS:
            return on_spawn_request(received);
        case queues::GET_PURE_ENTROPY:
        case queues::GET_PSEUDO_RANDOM:
            return send_random(received);
        case queues::SUPPORTS_METRICS:
            return;
        case queues::SET_LOG_LEVEL:
            return logging::apply_levels(
                queues::data<queues::SET_LOG_LEVEL>(received).logger_level);
        default:
            say(fmt::format("Got unhandled message: {} from: {}", queues::event_name(&received),
                            queues::queue_name(received.peer)),
                logging::level_t::warning);
    }
}

void Family::on_init_ok(const queues::event& received) {
    needs_[received.peer] = queues::data<queues::INIT_OK>(received).depend_on;
    SupervisedSibling* sibling = find(received.peer);
    if (sibling == nullptr) return;
    sibling->came_up(now_ms());
    say(fmt::format("{} is up", sibling->config().name));
    start_what_may_start();
}

void Family::on_log_request(const queues::event& received) {
    const SupervisedSibling* sibling = find(received.peer);
    log_.write(sibling != nullptr ? sibling->config().name : queues::queue_name(received.peer),
               queues::data<queues::SYSTEM_LOG_REQUEST>(received).msg);
}

void Family::on_store_variables(const queues::event& received) {
    try {
        variables_.store(queues::data<queues::STORE_SERVER_VARIABLE_FIELDS>(received).vars);
    } catch (const error::Exception& failure) {
        say(fmt::format("Variable fields of {} not stored: {}", queues::queue_name(received.peer),
                        failure.text()),
            logging::level_t::error);
    }
}

void Family::on_spawn_request(const queues::event& received) {
    const queues::queue_t wanted = queues::data<queues::REQUEST_SPAWN_PROCESS>(received);
    if (find(wanted) == nullptr)
        say(fmt::format("{} asked for {}, which is not run here", queues::queue_name(received.peer),
                        queues::queue_name(wanted)));
    else
        start_what_may_start();
}

void Family::send_random(const queues::event& received) {
    constexpr uint32_t kEntropyBytes = 256;
    constexpr uint32_t kMostBytes = 1U << 16;
    const bool pure = received.number() == queues::GET_PURE_ENTROPY;
    const uint32_t wanted =
        pure ? kEntropyBytes : queues::data<queues::GET_PSEUDO_RANDOM>(received).bytes;
    if (wanted > kMostBytes) {
        send(queues::exevent(
            received.peer, received.uid,
            fmt::format("{} random bytes asked for, at most {} are given", wanted, kMostBytes)));
        return;
    }
    std::string bytes(wanted, '\0');
    platform::system_entropy({reinterpret_cast<uint8_t*>(bytes.data()), bytes.size()});
    if (pure)
        reply<queues::RETURN_PURE_ENTROPY>(received, std::move(bytes));
    else
        reply<queues::RETURN_PSEUDO_RANDOM>(received, std::move(bytes));
}

template <queues::event_t N, class Record>
void Family::reply(const queues::event& request, Record record) {
    if (!queues::wants_reply(request.uid)) return;
    send(queues::devent<N>(request.peer, request.uid, std::move(record)));
}

void Family::send(const queues::event& sent) {
    if (messenger_.lentBytes(sibling_id(sent.peer)) > kMostUnreadBytes)
        give_up(sent.peer, "does not read what it is told");
    else
        queue_.send(sent);
}

void Family::say(std::string_view text, logging::level_t level) {
    log_.write(kOwnName, kOwnName, level, text);
}

}  // namespace mainprocess
