#include "tsdb/requests.h"

#include <fmt/format.h>
#include <utility>

#include "log/log.h"
#include "meter/meter.h"
#include "queues/records/tsdb_requests.h"
#include "tsdb/failures.h"

namespace tsdb {

namespace {

const logging::Logger logger{"tsdb"};

constexpr int32_t kDone = 0;

meter::Group series_group{"series"};
meter::IntegerCounter made_series{&series_group, "made", "", "Time series made"};
meter::IntegerCounter removed_series{&series_group, "removed", "", "Time series removed"};
meter::IntegerCounter stored_records{&series_group, "records", "",
                                     "Records that came to be stored"};
meter::IntegerCounter refused_requests{&series_group, "refused", "", "Requests that failed"};
meter::IntegerCounter lost_transactions{
    &series_group, "lost", "", "Times that what was written since the last commit was lost"};
meter::MicroSecondTiming get_time{&series_group, "get", "The time spent reading records"};
meter::MicroSecondTiming commit_time{&series_group, "commit",
                                     "The time spent making records durable"};

}  // namespace

Requests::Requests(const platform::Clock& clock, Open open, Send send)
    : clock_(clock), open_(std::move(open)), send_(std::move(send)) {
    open_if_due();
}

void Requests::open_if_due() {
    if (series_ || clock_.monotonic_us() < open_again_us_) return;
    try {
        storage_ = open_();
        series_.emplace(*storage_);
        if (!closed_because_.empty()) logger.info("The time series are served again");
        closed_because_.clear();
    } catch (const EStorage& failure) {
        if (closed_because_ != failure.text()) logger.error("{}", failure.text());
        closed_because_ = failure.text();
        open_again_us_ = clock_.monotonic_us() + kOpenAgain_us;
    }
}

bool Requests::take(const queues::event& received) {
    switch (received.number()) {
        case queues::CREATE_TIMESERIES:
        case queues::DELETE_TIMESERIES:
        case queues::DESCRIBE_TIMESERIES:
        case queues::GET_DATA:
        case queues::PUT_DATA:
        case queues::TRUNCATE_OLD_DATA:
        case queues::FIND_OLDEST_RECORD:
        case queues::RECOVERY_CHECKSUM_TIMESERIES:
        case queues::RECOVERY_EXTRACT_TIMESERIES:
        case queues::RECOVERY_MERGE_TIMESERIES:
            break;
        default:
            return false;
    }
    open_if_due();
    if (!series_) {
        refuse(received, closed_because_);
        return true;
    }
    const bool had_changes = series_->has_uncommitted();
    try {
        handle(received);
        note_change();
    } catch (const EBadRequest& failure) {
        note_change();
        refuse(received, failure.text());
    } catch (const EStorage& failure) {
        logger.error("{}", failure.text());
        if (had_changes && !series_->has_uncommitted()) lose_uncommitted(failure.text());
        refuse(received, failure.text());
    }
    return true;
}

void Requests::handle(const queues::event& received) {
    using namespace queues;
    switch (received.number()) {
        case CREATE_TIMESERIES:
            return handle_create(received);
        case DELETE_TIMESERIES:
            series_->remove(data<DELETE_TIMESERIES>(received));
            purges_ = true;
            removed_series.increment();
            // A series that comes back after a power cut takes room and harms nobody.
            return answer_now<RETURN_DELETE_TIMESERIES>(received, kDone);
        case DESCRIBE_TIMESERIES:
            return answer_now<RETURN_DESCRIBE_TIMESERIES>(
                received, series_->describe(data<DESCRIBE_TIMESERIES>(received)));
        case GET_DATA: {
            const meter::TimingScope timing(get_time, clock_);
            const Get_Data_Data& wanted = data<GET_DATA>(received);
            return answer_now<RETURN_GET_DATA>(
                received, Return_Get_Data_Data{wanted.data_type, series_->get(wanted)});
        }
        case PUT_DATA:
            return handle_put(received);
        case TRUNCATE_OLD_DATA: {
            const Truncate_Old_Data_Data& wanted = data<TRUNCATE_OLD_DATA>(received);
            series_->truncate(wanted.handle, wanted.time);
            return answer_durable<RETURN_TRUNCATE_OLD_DATA>(received, kDone);
        }
        case FIND_OLDEST_RECORD:
            return answer_now<RETURN_FIND_OLDEST_RECORD>(received, series_->oldest_time());
        case RECOVERY_CHECKSUM_TIMESERIES:
            return answer_now<RETURN_RECOVERY_CHECKSUM_TIMESERIES>(
                received, series_->checksum(data<RECOVERY_CHECKSUM_TIMESERIES>(received)));
        case RECOVERY_EXTRACT_TIMESERIES:
            return answer_now<RETURN_RECOVERY_EXTRACT_TIMESERIES>(
                received, series_->extract(data<RECOVERY_EXTRACT_TIMESERIES>(received)));
        case RECOVERY_MERGE_TIMESERIES: {
            const Recovery_Merge_TimeSeries_Data& wanted =
                data<RECOVERY_MERGE_TIMESERIES>(received);
            series_->merge_extracts(wanted.handle, wanted.data);
            return answer_durable<RETURN_RECOVERY_MERGE_TIMESERIES>(received, kDone);
        }
        default:
            return;
    }
}

/// The asker waits with the object that is to name the series: one made ahead costs it no flush.
void Requests::handle_create(const queues::event& received) {
    const auto& layout = queues::data<queues::CREATE_TIMESERIES>(received);
    made_series.increment();
    if (const auto spare = series_->take_spare(layout))
        return answer_now<queues::RETURN_CREATE_TIMESERIES>(received, *spare);
    const uint32_t index = series_->create(layout);
    series_->make_spares(layout);
    answer_durable<queues::RETURN_CREATE_TIMESERIES>(received, index);
}

void Requests::handle_put(const queues::event& received) {
    const Put_Data_Data& wanted = queues::data<queues::PUT_DATA>(received);
    stored_records.increment(wanted.data.size());
    const auto stored = [&](uint32_t index) {
        answer_durable<queues::RETURN_PUT_DATA_ALLOC>(received, index);
    };
    switch (wanted.operation) {
        case kStore:
            series_->put(wanted.handle, wanted.data);
            return stored(wanted.handle);
        case kMerge:
            series_->merge(wanted.handle, wanted.data);
            return stored(wanted.handle);
        case kAllocateAndStore: {
            const uint32_t index = series_->ensure(wanted.handle, wanted.data_type);
            stored(index);
            series_->put(index, wanted.data);
            return stored(index);
        }
        default:
            throw EBadRequest(fmt::format("{} is no operation of PUT_DATA", wanted.operation));
    }
}

// ---- answers -----------------------------------------------------------------------------------

template <queues::event_t N, class Record>
void Requests::answer_durable(const queues::event& asked, Record record) {
    if (!queues::wants_reply(asked.uid)) return;
    answer_after_commit(asked, std::make_unique<queues::devent<N>>(asked.peer, asked.uid, record));
}

template <queues::event_t N, class Record>
void Requests::answer_now(const queues::event& asked, Record record) {
    if (queues::wants_reply(asked.uid))
        send_(queues::devent<N>(asked.peer, asked.uid, std::move(record)));
}

void Requests::answer_after_commit(const queues::event& asked,
                                   std::unique_ptr<queues::event> answer) {
    if (waiting_.empty() || waiting_.back().peer != asked.peer || waiting_.back().uid != asked.uid)
        waiting_.push_back({asked.peer, asked.uid, {}});
    waiting_.back().answers.push_back(std::move(answer));
}

/// Behind an answer that still waits, if the request has one: it allocated a series that the data
/// didn't suit.
void Requests::refuse(const queues::event& asked, const std::string& text) {
    refused_requests.increment();
    if (!queues::wants_reply(asked.uid)) {
        logger.warning("{} from {}: {}", queues::event_name(&asked), queues::queue_name(asked.peer),
                       text);
        return;
    }
    auto refusal = std::make_unique<queues::exevent>(asked.peer, asked.uid, text);
    if (!waiting_.empty() && waiting_.back().peer == asked.peer && waiting_.back().uid == asked.uid)
        waiting_.back().answers.push_back(std::move(refusal));
    else
        send_(*refusal);
}

// ---- commits -----------------------------------------------------------------------------------

void Requests::note_change() {
    if (!first_change_us_ && series_->has_uncommitted()) first_change_us_ = clock_.monotonic_us();
}

bool Requests::must_commit() const {
    if (waiting_.size() >= kMostWaiting) return true;
    if (series_ && series_->uncommitted() >= kMostUncommitted) return true;
    const auto due_us = commit_due_us();
    return due_us && clock_.monotonic_us() >= *due_us;
}

std::optional<uint64_t> Requests::commit_due_us() const {
    if (!first_change_us_) return std::nullopt;
    return *first_change_us_ + kCommitEvery_us;
}

void Requests::commit() {
    if (series_) {
        try {
            const meter::TimingScope timing(commit_time, clock_);
            series_->commit();
        } catch (const EStorage& failure) {
            logger.error("{}", failure.text());
            return lose_uncommitted(failure.text());
        }
    }
    first_change_us_.reset();
    for (const Waiting& one : std::exchange(waiting_, {}))
        for (const auto& answer : one.answers) send_(*answer);
}

void Requests::finish() {
    try {
        if (series_) series_->drop_spares();
    } catch (const EStorage& failure) {
        logger.error("{}", failure.text());
    }
    commit();
}

/// Those who wait hear that nothing came of it; what nobody waits for is lost.
void Requests::lose_uncommitted(const std::string& reason) {
    series_->abort();
    lost_transactions.increment();
    first_change_us_.reset();
    logger.error("All data since the last commit is lost");
    for (const Waiting& one : std::exchange(waiting_, {}))
        send_(queues::exevent(one.peer, one.uid, reason));
}

bool Requests::work_idly() {
    if (!series_ || !purges_) return false;
    try {
        purges_ = series_->purge_some();
        note_change();
    } catch (const EStorage& failure) {
        logger.error("{}", failure.text());
        purges_ = false;  // until the next series is removed
        if (first_change_us_ && !series_->has_uncommitted()) lose_uncommitted(failure.text());
    }
    return purges_;
}

}  // namespace tsdb
