#include "wapi/live_streams.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "log/log.h"
#include "tql/errors.h"

namespace wapi {

namespace {

const logging::Logger logger{"wapi"};

constexpr queues::queue_t kServer = queues::queue_t::dbms;
constexpr std::string_view kSubscribePath = "/api/v1/subscribe";
constexpr std::string_view kEventsPath = "/api/v1/events";
/// What leaves a queue at once, if that is more than one event.
constexpr size_t kBatchBytes = 64U << 10;

}  // namespace

struct LiveStreams::Stream {
    enum class state_t { queued, checking, asking, live, skipping };

    token_t token = 0;
    // One of the two.
    std::optional<SubscribeRequest> select{};
    std::optional<EventsRequest> simple{};

    state_t state = state_t::queued;
    bool roots_checked = false;
    uint32_t uid = 0;          ///< of the request that the server has; 0: none
    uint64_t deadline_us = 0;  ///< of the first result, while the stream isn't open
    bool open = false;         ///< the client has the begin of a stream
    bool away = false;         ///< the client was told that the server isn't there
    bool doomed = false;       ///< to be ended at the next look
    bool idle = false;         ///< all that was written has left
    bool owes_acknowledge = false;
    std::deque<std::string> queue{};
    size_t queued_bytes = 0;
    size_t written_bytes = 0;  ///< that have not all left
    uint64_t missed = 0;
    uint64_t last_number = 0;
    uint64_t last_write_us = 0;

    [[nodiscard]] bool is_asking() const {
        return state == state_t::checking || state == state_t::asking;
    }
    [[nodiscard]] const std::list<tql::id_t>& named_roots() const {
        return select ? select->named_roots : simple->named_roots;
    }
    [[nodiscard]] bool has_patches() const { return select && select->plan; }
};

LiveStreams::LiveStreams(GatewayPorts& ports, const platform::Clock& clock)
    : ports_(ports), clock_(clock) {}

LiveStreams::~LiveStreams() = default;

// Requests.

bool LiveStreams::serves(std::string_view path) const {
    return path == kSubscribePath || path == kEventsPath;
}

void LiveStreams::take_request(token_t token, const Request& request) {
    auto stream = std::make_unique<Stream>();
    stream->token = token;
    try {
        allow_method(request, "GET");
        if (request.path == kSubscribePath)
            stream->select = subscribe_request(request);
        else
            stream->simple = events_request(request);
    } catch (const error::Exception& wrong) {
        ports_.answer(token, refusal(wrong));
        return;
    }
    admit(std::move(stream));
}

void LiveStreams::admit(std::unique_ptr<Stream> stream) {
    const token_t token = stream->token;
    if (stopped_) return ports_.answer(token, refusal(unavailable("The gateway is stopping")));
    if (retry_at_us_)
        return ports_.answer(token, refusal(unavailable("The server is not running")));
    if (streams_.size() >= kMaxStreams) {
        Response full =
            refusal(Refused(503, "TOO_MANY_STREAMS",
                            fmt::format("{} live requests are open already", kMaxStreams)));
        // Those who wait for a place must not take the connections that others ask by.
        full.ends_connection = true;
        return ports_.answer(token, std::move(full));
    }
    stream->deadline_us = clock_.monotonic_us() + kAnswerLimit_us;
    enqueue(*streams_.emplace(token, std::move(stream)).first->second);
    ask_queued();
}

void LiveStreams::enqueue(Stream& stream) {
    stream.state = Stream::state_t::queued;
    queued_.push_back(stream.token);
}

void LiveStreams::ask_queued() {
    while (!queued_.empty() && asking_ < kMaxAsking && !retry_at_us_) {
        Stream* next = find(queued_.front());
        if (next != nullptr && next->state == Stream::state_t::queued && !ask(*next)) {
            if (next->open) {
                say_away(*next);
                retry_at_us_ = clock_.monotonic_us() + kRetry_us;
                return;
            }
            refuse(*next, refusal(unavailable("The server is not running")));
        }
        queued_.pop_front();
    }
}

/// False if the server isn't there.
bool LiveStreams::ask(Stream& stream) {
    const bool check = !stream.named_roots().empty() && !stream.roots_checked;
    if (stream.simple && !check) return ask_for_operations(stream);
    if (!send(stream, queues::devent<queues::TQL_SELECT>(
                          kServer, ports_.new_uid(),
                          check ? roots_request(stream.named_roots()) : stream.select->record)))
        return false;
    stream.state = check ? Stream::state_t::checking : Stream::state_t::asking;
    ++asking_;
    return true;
}

/// False if the server isn't there.
bool LiveStreams::ask_for_operations(Stream& stream) {
    if (!send(stream, queues::devent<queues::TQL_SIMPLE_SUBSCRIBE>(kServer, ports_.new_uid(),
                                                                   stream.simple->record)))
        return false;
    // No answer comes but the first notice.
    stream.state = Stream::state_t::live;
    ensure_open(stream);
    stream.away = false;
    emit(stream, "ready", "{}");
    return true;
}

bool LiveStreams::send(Stream& stream, const queues::event& request) {
    if (!ports_.send(request)) return false;
    stream.uid = request.uid;
    by_uid_.emplace(request.uid, stream.token);
    return true;
}

void LiveStreams::no_longer_asking(Stream& stream) {
    if (stream.is_asking()) --asking_;
    stream.state = Stream::state_t::live;
}

// What the server says.

bool LiveStreams::take_event(const queues::event& received) {
    if (received.peer != kServer) return false;
    if (forgetting_.erase(received.uid) > 0) return true;
    if (const auto known = by_uid_.find(received.uid); known != by_uid_.end()) {
        take(*find(known->second), received);
        ask_queued();
        return true;
    }
    const bool is_late = std::any_of(forgetting_.begin(), forgetting_.end(),
                                     [&](const auto& each) { return each.second == received.uid; });
    if (is_late) return true;
    switch (received.number()) {
        case queues::RETURN_TQL_SELECT_PATCH:
        case queues::RETURN_TQL_SELECT_DELETE_PATCH:
        case queues::RETURN_TQL_SIMPLE_SUBSCRIBE:
            // A subscription of a former life of this process.
            forget(received.uid);
            return true;
        default:
            return false;
    }
}

void LiveStreams::take(Stream& stream, const queues::event& received) {
    if (received.exception)
        return take_failure(stream,
                            refusal(errors::ERR_BACKEND,
                                    {{3, static_cast<const queues::exevent&>(received).text}}));
    try {
        switch (received.number()) {
            case queues::RETURN_TQL_SELECT: {
                const auto& found = queues::data<queues::RETURN_TQL_SELECT>(received);
                return stream.state == Stream::state_t::checking ? take_roots(stream, found)
                                                                 : take_result(stream, found);
            }
            case queues::RETURN_TQL_SELECT_PATCH:
                return emit_if_room(
                    stream, "patch",
                    patch_data(queues::data<queues::RETURN_TQL_SELECT_PATCH>(received)));
            case queues::RETURN_TQL_SELECT_DELETE_PATCH:
                return emit_if_room(
                    stream, "delete",
                    delete_data(queues::data<queues::RETURN_TQL_SELECT_DELETE_PATCH>(received)));
            case queues::RETURN_TQL_SIMPLE_SUBSCRIBE:
                return emit_if_room(
                    stream, "operation",
                    operation_data(queues::data<queues::RETURN_TQL_SIMPLE_SUBSCRIBE>(received)));
            default:
                logger.error("Unexpected {} for a subscription", queues::event_name(&received));
        }
    } catch (const Refused& too_deep) {
        take_failure(stream, refusal(too_deep));
    }
}

void LiveStreams::take_roots(Stream& stream, const dbms::Return_Tql_Select_Data& found) {
    by_uid_.erase(std::exchange(stream.uid, 0));
    no_longer_asking(stream);
    if (found.status != 0) return refuse(stream, refusal(found.status, found.details));
    if (const auto missing = find_missing_root(stream.named_roots(), found))
        return refuse(stream, refusal(errors::ERR_NO_SUCH_ID,
                                      {{3, fmt::format("{} not found", missing->to_string())}}));
    stream.roots_checked = true;
    enqueue(stream);
}

void LiveStreams::take_result(Stream& stream, const dbms::Return_Tql_Select_Data& result) {
    no_longer_asking(stream);
    stream.owes_acknowledge = !stream.has_patches();
    if (result.status != 0) return take_failure(stream, refusal(result.status, result.details));
    const std::string data = result_data(result, stream.select->plan);
    clear(stream);  // a result says all that earlier events could
    ensure_open(stream);
    stream.away = false;
    emit(stream, "result", data);
}

/// Of a subscription that goes on, unless it has not begun for its client.
void LiveStreams::take_failure(Stream& stream, Response failure) {
    if (!stream.open) return refuse(stream, std::move(failure));
    no_longer_asking(stream);
    if (stream.select) clear(stream);
    emit(stream, "error", failure.body);
}

void LiveStreams::peer_lost(queues::queue_t peer) {
    if (peer != kServer || stopped_) return;
    forgetting_.clear();
    by_uid_.clear();
    queued_.clear();
    asking_ = 0;
    for (const token_t token : tokens()) {
        Stream& stream = *find(token);
        stream.uid = 0;
        stream.owes_acknowledge = false;
        stream.state = Stream::state_t::queued;
        if (!stream.open) {
            refuse(stream, refusal(unavailable("The server ended before it answered")));
            continue;
        }
        if (stream.select) clear(stream);
        say_away(stream);
        enqueue(stream);
    }
    if (!queued_.empty()) retry_at_us_ = clock_.monotonic_us() + kRetry_us;
}

void LiveStreams::say_away(Stream& stream) {
    if (!std::exchange(stream.away, true)) emit(stream, "away", "{}");
}

// To the client.

void LiveStreams::ensure_open(Stream& stream) {
    if (stream.open) return;
    stream.open = true;
    stream.last_write_us = clock_.monotonic_us();
    if (!ports_.open_stream(stream.token, "text/event-stream")) stream.doomed = true;
    push(stream, "retry: 1000\n\n");
}

void LiveStreams::emit(Stream& stream, std::string_view name, std::string_view data) {
    push(stream, stream_event(name, ++stream.last_number, data));
}

void LiveStreams::emit_if_room(Stream& stream, std::string_view name, const std::string& data) {
    if (stream.state != Stream::state_t::live) return;
    if (stream.missed == 0 && stream.queue.size() < kMaxQueuedEvents &&
        stream.queued_bytes + data.size() <= kMaxQueuedBytes)
        return emit(stream, name, data);
    if (stream.simple) {
        ++stream.missed;
        return;
    }
    clear(stream);
    forget(stream);
    stream.state = Stream::state_t::skipping;
}

void LiveStreams::push(Stream& stream, std::string text) {
    if (bytes_of_all_ + text.size() > kMaxBytesOfAll) {
        if (!std::exchange(stream.doomed, true))
            logger.warning("A live request is ended: {} bytes wait for readers already",
                           bytes_of_all_);
        return;
    }
    bytes_of_all_ += text.size();
    stream.queued_bytes += text.size();
    stream.queue.push_back(std::move(text));
    hand_out(stream);
}

void LiveStreams::hand_out(Stream& stream) {
    if (!stream.idle || stream.queue.empty()) return;
    std::string batch = std::move(stream.queue.front());
    stream.queue.pop_front();
    while (!stream.queue.empty() && batch.size() + stream.queue.front().size() <= kBatchBytes) {
        batch += stream.queue.front();
        stream.queue.pop_front();
    }
    stream.idle = false;
    stream.queued_bytes -= batch.size();
    stream.written_bytes = batch.size();
    stream.last_write_us = clock_.monotonic_us();
    ports_.write(stream.token, batch);
}

void LiveStreams::stream_taken(token_t token) {
    Stream* stream = find(token);
    if (stream == nullptr) return;
    stream->idle = true;
    bytes_of_all_ -= std::exchange(stream->written_bytes, 0);
    hand_out(*stream);
    if (!stream->idle) return;
    if (std::exchange(stream->owes_acknowledge, false))
        (void)ports_.send(
            queues::devent<queues::TQL_ACKNOWLEDGE>(kServer, 0, {.req_id_to_ack = stream->uid}));
    if (stream->missed > 0) emit(*stream, "missed", missed_data(std::exchange(stream->missed, 0)));
    if (stream->state == Stream::state_t::skipping) {
        enqueue(*stream);
        ask_queued();
    }
}

void LiveStreams::clear(Stream& stream) {
    bytes_of_all_ -= std::exchange(stream.queued_bytes, 0);
    stream.queue.clear();
}

// The end of streams.

void LiveStreams::forget(uint32_t uid) {
    const uint32_t dialog = ports_.new_uid();
    if (ports_.send(queues::devent<queues::TQL_FORGET>(kServer, dialog, {.req_id_to_forget = uid})))
        forgetting_.emplace(dialog, uid);
}

void LiveStreams::forget(Stream& stream) {
    const uint32_t uid = std::exchange(stream.uid, 0);
    if (uid == 0) return;
    by_uid_.erase(uid);
    stream.owes_acknowledge = false;
    // A look for roots is no subscription: only its reply has to be passed over.
    if (stream.state == Stream::state_t::checking)
        forgetting_.emplace(uid, 0);
    else
        forget(uid);
}

void LiveStreams::refuse(Stream& stream, Response response) {
    const token_t token = stream.token;
    forget(stream);
    drop(token);
    ports_.answer(token, std::move(response));
}

void LiveStreams::drop(token_t token) {
    const auto found = streams_.find(token);
    Stream& stream = *found->second;
    if (stream.is_asking()) --asking_;
    bytes_of_all_ -= stream.queued_bytes + stream.written_bytes;
    streams_.erase(found);
}

void LiveStreams::stream_ended(token_t token) {
    Stream* stream = find(token);
    if (stream == nullptr) return;
    forget(*stream);
    drop(token);
    ask_queued();
}

void LiveStreams::stop() {
    stopped_ = true;
    retry_at_us_.reset();
    for (const token_t token : tokens()) {
        Stream& stream = *find(token);
        if (!stream.open) {
            refuse(stream, refusal(unavailable("The gateway is stopping")));
            continue;
        }
        stream.doomed = true;
    }
    end_doomed();
}

void LiveStreams::end_doomed() {
    for (const token_t token : tokens()) {
        Stream& stream = *find(token);
        if (!stream.doomed) continue;
        forget(stream);
        drop(token);
        ports_.end_stream(token);
    }
}

LiveStreams::Stream* LiveStreams::find(token_t token) const {
    const auto found = streams_.find(token);
    return found == streams_.end() ? nullptr : found->second.get();
}

std::vector<token_t> LiveStreams::tokens() const {
    std::vector<token_t> all;
    all.reserve(streams_.size());
    for (const auto& [token, stream] : streams_) all.push_back(token);
    return all;
}

// Time.

std::optional<uint64_t> LiveStreams::next_deadline_us() const {
    std::optional<uint64_t> earliest = retry_at_us_;
    const auto consider = [&](uint64_t moment_us) {
        earliest = std::min(earliest.value_or(moment_us), moment_us);
    };
    for (const auto& [token, stream] : streams_) {
        if (stream->doomed) consider(0);
        if (!stream->open) consider(stream->deadline_us);
        if (stream->open && stream->idle) consider(stream->last_write_us + kHeartbeat_us);
    }
    return earliest;
}

void LiveStreams::check_deadlines() {
    if (streams_.empty()) {
        retry_at_us_.reset();
        return;
    }
    const uint64_t now_us = clock_.monotonic_us();
    if (retry_at_us_ && *retry_at_us_ <= now_us) {
        retry_at_us_.reset();
        ask_queued();
    }
    for (const token_t token : tokens()) {
        Stream& stream = *find(token);
        if (!stream.open && stream.deadline_us <= now_us)
            refuse(stream, refusal(Refused(504, "NO_ANSWER", "The server did not answer in time")));
        else if (stream.open && stream.idle && stream.last_write_us + kHeartbeat_us <= now_us)
            push(stream, ":\n\n");
    }
    end_doomed();
    ask_queued();
}

}  // namespace wapi
