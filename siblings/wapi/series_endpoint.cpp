#include "wapi/series_endpoint.h"

#include <algorithm>
#include <fmt/format.h>

#include "queues/series_kinds.h"
#include "tql/errors.h"

namespace wapi {

namespace {

constexpr queues::queue_t kServer = queues::queue_t::dbms;

template <class Reply>
void check_status(const Reply& reply) {
    if (reply.status == 0) return;
    const std::string text = reply.details.empty()
                                 ? std::string(errors::tql_code_text(reply.status))
                                 : reply.details.front().msg;
    throw errors::tql(static_cast<errors::tql_code_t>(reply.status), text);
}

/// A failure by the store of series, or on the way to it, passes; the request may be tried again.
template <class Reply>
const Reply& check_data(const Reply& reply) {
    if (reply.status == errors::ERR_BACKEND && !reply.details.empty())
        throw unavailable("The time series can't be reached: " + reply.details.front().msg);
    check_status(reply);
    return reply;
}

}  // namespace

bool SeriesEndpoint::serves(std::string_view path) const {
    return path.starts_with(kSeriesPath);
}

void SeriesEndpoint::take_request(token_t token, const Request& request) {
    try {
        if (stopped_) throw unavailable("The gateway is stopping");
        if (calls_.size() >= kMostCalls)
            throw Refused(503, "BUSY", "Too many requests for time series at the same time");
        Call call{.token = token,
                  .deadline_us = clock_.monotonic_us() + kAnswerLimit_us,
                  .wanted = series_request(request, clock_.wall().seconds)};
        auto lookup = series_object_request(call.wanted);
        ask<queues::TQL_SELECT>(std::move(call), std::move(lookup));
    } catch (const error::Exception& wrong) {
        ports_.answer(token, refusal(wrong));
    }
}

template <queues::event_t N>
void SeriesEndpoint::ask(Call call, queues::record_t<N> record) {
    const uint32_t uid = ports_.new_uid();
    if (!ports_.send(queues::devent<N>(kServer, uid, std::move(record))))
        throw unavailable("The server is not running");
    calls_.insert_or_assign(uid, std::move(call));
}

bool SeriesEndpoint::take_event(const queues::event& received) {
    if (received.peer != kServer) return false;
    auto found = calls_.extract(received.uid);
    if (found.empty()) return false;
    Call& call = found.mapped();
    const token_t token = call.token;
    try {
        go_on(call, received);
    } catch (const error::Exception& wrong) {
        ports_.answer(token, refusal(wrong));
    }
    return true;
}

void SeriesEndpoint::go_on(Call& call, const queues::event& received) {
    if (received.exception)
        throw errors::tql(errors::ERR_BACKEND, static_cast<const queues::exevent&>(received).text);
    switch (received.number()) {
        case queues::RETURN_TQL_SELECT:
            return take_object(call, queues::data<queues::RETURN_TQL_SELECT>(received));
        case queues::RETURN_TSDB_GET_DATA: {
            const auto& returned = check_data(queues::data<queues::RETURN_TSDB_GET_DATA>(received));
            return ports_.answer(call.token, answer(call.wanted, call.object, returned));
        }
        case queues::RETURN_TSDB_GET_LATEST_DATA_RECORD: {
            const auto& latest =
                check_data(queues::data<queues::RETURN_TSDB_GET_LATEST_DATA_RECORD>(received));
            return append(call, latest.data_type);
        }
        case queues::RETURN_TSDB_APPEND_DATA:
            check_data(queues::data<queues::RETURN_TSDB_APPEND_DATA>(received));
            return ports_.answer(call.token, answer_append(call.wanted));
        default:
            throw errors::tql(errors::ERR_BACKEND,
                              fmt::format("Unexpected reply {}", queues::event_name(&received)));
    }
}

void SeriesEndpoint::take_object(Call& call, const dbms::Return_Tql_Select_Data& found) {
    check_status(found);
    const bool exists = has_series(call.wanted, found);
    call.object = found.res.front();
    if (!call.wanted.appended) {
        if (!exists) refuse_empty(call.wanted);
        auto request = series_data_request(call.wanted);
        return ask<queues::TSDB_GET_DATA>(std::move(call), request);
    }
    if (exists) {
        auto request = series_type_request(call.wanted);
        return ask<queues::TSDB_GET_LATEST_DATA_RECORD>(std::move(call), request);
    }
    const auto first = type_of_first_data(call.wanted.property);
    if (!first) refuse_empty(call.wanted);
    append(call, *first);
}

void SeriesEndpoint::append(Call& call, uint32_t data_type) {
    auto request = series_append_request(call.wanted, data_type, clock_.wall().seconds);
    ask<queues::TSDB_APPEND_DATA>(std::move(call), std::move(request));
}

void SeriesEndpoint::peer_lost(queues::queue_t peer) {
    if (peer == kServer) refuse_all("The server ended before it answered");
}

void SeriesEndpoint::stop() {
    stopped_ = true;
    refuse_all("The gateway is stopping");
}

void SeriesEndpoint::refuse_all(std::string_view text) {
    const auto refused = std::exchange(calls_, {});
    for (const auto& [uid, call] : refused) ports_.answer(call.token, refusal(unavailable(text)));
}

std::optional<uint64_t> SeriesEndpoint::next_deadline_us() const {
    std::optional<uint64_t> earliest;
    for (const auto& [uid, call] : calls_)
        if (!earliest || call.deadline_us < *earliest) earliest = call.deadline_us;
    return earliest;
}

// A reply that comes later finds no call and is logged like any that nobody waits for.
void SeriesEndpoint::check_deadlines() {
    const uint64_t now_us = clock_.monotonic_us();
    for (auto each = calls_.begin(); each != calls_.end();) {
        if (each->second.deadline_us > now_us) {
            ++each;
            continue;
        }
        const token_t token = each->second.token;
        each = calls_.erase(each);
        ports_.answer(token,
                      refusal(Refused(504, "NO_ANSWER", "The server did not answer in time")));
    }
}

}  // namespace wapi
