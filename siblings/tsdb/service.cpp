#include "tsdb/service.h"

#include "io/exception.h"
#include "log/log.h"
#include "platform/fifo.h"
#include "platform/random.h"
#include "queues/dialogs.h"
#include "queues/log_outlet.h"
#include "queues/records/control.h"
#include "tsdb/sqlite_storage.h"

namespace tsdb {

namespace {

const logging::Logger logger{"tsdb"};

constexpr uint32_t kOwnId = static_cast<uint32_t>(queues::queue_t::tsdb);
constexpr int kNoValue = 0;

/// Where the indexes of a new file begin: somewhere in the lower half of what there is.
uint32_t first_index(const platform::Clock& clock) {
    return platform::Random(clock).next_u32() >> 1;
}

}  // namespace

Service::Service(io::ChildMessenger& messenger, queues::childqueue& queue,
                 queues::Introspection& introspection, const platform::Clock& clock,
                 Requests::Open open)
    : messenger_(messenger),
      queue_(queue),
      introspection_(introspection),
      clock_(clock),
      requests_(clock, std::move(open), [this](const queues::event& sent) { send(sent); }),
      span_clock_(clock),
      timer_(span_clock_) {
    selector_.add(queue_.front(), kNoValue);
    selector_.add(timer_, kNoValue);
}

Service::~Service() {
    selector_.remove(timer_);
    selector_.remove(queue_.front());
}

void Service::run() {
    queue_.send(queues::devent<queues::INIT_OK>(queues::queue_t::main, 0));
    logger.info("TSDB running");
    bool idle_work = true;
    while (!stopped_) {
        if (requests_.must_commit()) requests_.commit();
        arm_timer();
        const bool waits = !requests_.someone_waits() && !idle_work;
        try {
            const io::Selectable& ready =
                selector_.select(waits ? io::wait_t::blocking : io::wait_t::non_blocking);
            if (&ready != &queue_.front()) continue;
            take_event();
            idle_work = true;
        } catch (const io::ENotReady&) {
            // Nothing more has arrived: those who wait get their answers, all with one commit.
            if (requests_.someone_waits())
                requests_.commit();
            else
                idle_work = requests_.work_idly();
        }
    }
    requests_.finish();
}

void Service::arm_timer() {
    const auto due_us = requests_.commit_due_us();
    if (!due_us) return timer_.set_expiry(Time::far_future());
    const uint64_t now_us = clock_.monotonic_us();
    const uint64_t wait_us = *due_us > now_us ? *due_us - now_us : 0;
    timer_.set_expiry(Time::now(span_clock_) + Time(static_cast<int32_t>(wait_us / 1'000'000),
                                                    static_cast<int32_t>(wait_us % 1'000'000)));
}

void Service::take_event() {
    try {
        const std::unique_ptr<queues::event> received = queue_.read();
        if (received == nullptr)
            stopped_ = queue_.lost_peers().test(queues::queue_t::main);
        else
            dispatch(*received);
    } catch (const io::EEndOfStream& gone) {
        logger.info("Lost peer: {}", gone.text());
    }
}

void Service::dispatch(const queues::event& received) {
    if (received.number() == queues::SYS_EXIT) {
        if (messenger_.shutdownInitiated()) return;
        logger.info("Initiating shutdown");
        requests_.commit();
        messenger_.initiateShutdown();
    } else if (!introspection_.consumed(received) && !requests_.take(received)) {
        logger.warning("Got unhandled message: {} from: {}", queues::event_name(&received),
                       queues::queue_name(received.peer));
    }
}

void Service::send(const queues::event& sent) {
    try {
        queue_.send(sent);
    } catch (const io::EEndOfStream& gone) {
        logger.info("Lost peer: {}", gone.text());
    }
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
        const meter::Tree metrics("tsdb");
        queues::Introspection introspection(queue, metrics, clock);
        Service service(messenger, queue, introspection, clock, [&] {
            return std::make_unique<SqliteStorage>(configuration.dbms_tsdb_file_path,
                                                   first_index(clock));
        });
        service.run();
    }
    if (messenger.shutdownInitiated()) messenger.completeShutdown();
    return 0;
}

}  // namespace tsdb
