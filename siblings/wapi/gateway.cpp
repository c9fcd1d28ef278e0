#include "wapi/gateway.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "log/log.h"
#include "tql/errors.h"

namespace wapi {

namespace {

const logging::Logger logger{"wapi"};

constexpr queues::queue_t kServer = queues::queue_t::dbms;
/// What a request costs in the pool besides its body.
constexpr size_t kEventOverheadBytes = 256;

template <queues::event_t N>
std::unique_ptr<queues::event> to_server(queues::record_t<N> record = {}) {
    return std::make_unique<queues::devent<N>>(kServer, 0, std::move(record));
}

}  // namespace

/// The requests that the gateway takes, a line each: path, method, and what the server is asked.
struct Gateway::Routes {
    struct Route {
        std::string_view path;
        std::string_view method;
        void (*make)(Call& call, const Request& request);
    };

    static void health(Call& call, const Request& request) {
        call.is_health = true;
        classes(call, request);
    }
    static void classes(Call& call, const Request&) {
        call.request = to_server<queues::GET_TQL_CLASS_NAMES>();
    }
    static void properties(Call& call, const Request&) {
        call.request = to_server<queues::GET_TQL_PROPERTY_NAMES>();
    }
    static void select(Call& call, const Request& request) {
        call.request = to_server<queues::TQL_SELECT>(select_request(parse_body(request.body)));
    }
    static void create(Call& call, const Request& request) {
        call.request = to_server<queues::TQL_CREATE>(create_request(parse_body(request.body)));
    }
    static void update(Call& call, const Request& request) {
        const nlohmann::json body = parse_body(request.body);
        auto wanted = update_request(body);
        if (wanted.has_properties) return change<queues::TQL_UPDATE>(call, std::move(wanted));
        look_up(call, wanted.record.id, [body](const tql::result_t& object) {
            auto read = update_request(body, object.class_);
            if (!read.has_version) read.record.version = object.version;
            return to_server<queues::TQL_UPDATE>(std::move(read.record));
        });
    }
    static void remove(Call& call, const Request& request) {
        change<queues::TQL_DELETE>(call, delete_request(parse_body(request.body)));
    }

    static void translate(Call& call, const Request& request) {
        call.request =
            to_server<queues::NODECLASS_TRANSLATE>(translate_request(parse_body(request.body)));
        call.failure_code = errors::ERR_ILLEGAL_VALUE;
    }

    static const Route* find(std::string_view path) {
        static constexpr Route kRoutes[] = {
            {"/healthz", "GET", &health},
            {"/api/v1/classes", "GET", &classes},
            {"/api/v1/properties", "GET", &properties},
            {"/api/v1/select", "POST", &select},
            {"/api/v1/create", "POST", &create},
            {"/api/v1/update", "POST", &update},
            {"/api/v1/delete", "POST", &remove},
            {"/api/v1/translate", "POST", &translate},
        };
        const auto* found = std::find_if(std::begin(kRoutes), std::end(kRoutes),
                                         [&](const Route& route) { return route.path == path; });
        return found == std::end(kRoutes) ? nullptr : found;
    }

  private:
    template <queues::event_t N>
    static void change(Call& call, ChangeRequest<queues::record_t<N>> wanted) {
        call.id = wanted.record.id;
        if (wanted.has_version) {
            call.request = to_server<N>(std::move(wanted.record));
            return;
        }
        look_up(call, call.id,
                [record = std::move(wanted.record)](const tql::result_t& object) mutable {
                    record.version = object.version;
                    return to_server<N>(std::move(record));
                });
    }

    static void look_up(Call& call, const tql::id_t& id, decltype(Call::make_change) make_change) {
        call.id = id;
        call.make_change = std::move(make_change);
        call.request = to_server<queues::TQL_SELECT>(lookup_request(id, false));
    }
};

bool Gateway::serves(std::string_view path) const {
    return Routes::find(path) != nullptr;
}

Gateway::Call Gateway::make_call(const Request& request) {
    const Routes::Route* route = Routes::find(request.path);
    if (route == nullptr)
        throw Refused(404, "NOT_FOUND",
                      fmt::format("There is nothing at {}", request.path.substr(0, 200)));
    allow_method(request, route->method);
    Call call;
    call.weight_bytes = request.body.size() + kEventOverheadBytes;
    route->make(call, request);
    return call;
}

void Gateway::take_request(token_t token, const Request& request) {
    if (stopped_) {
        ports_.answer(token, refusal(unavailable("The gateway is stopping")));
        return;
    }
    try {
        Call call = make_call(request);
        call.token = token;
        call.deadline_us =
            clock_.monotonic_us() + (call.is_health ? kHealthLimit_us : kAnswerLimit_us);
        queued_.push_back(std::move(call));
    } catch (const error::Exception& wrong) {
        ports_.answer(token, refusal(wrong));
        return;
    }
    send_queued();
}

void Gateway::send_queued() {
    while (!queued_.empty()) {
        const size_t weight = queued_.front().weight_bytes;
        if (!in_flight_.empty() && in_flight_bytes_ + weight > kWindowBytes) return;
        Call call = std::move(queued_.front());
        queued_.pop_front();
        call.request->uid = ports_.new_uid();
        if (!ports_.send(*call.request)) {
            queued_.push_front(std::move(call));
            refuse_all("The server is not running");
            return;
        }
        const uint32_t uid = call.request->uid;
        call.request.reset();
        in_flight_bytes_ += weight;
        in_flight_.insert_or_assign(uid, std::move(call));
    }
}

bool Gateway::take_event(const queues::event& received) {
    if (received.peer != kServer) return false;
    auto found = in_flight_.extract(received.uid);
    if (found.empty()) return false;
    Call call = std::move(found.mapped());
    in_flight_bytes_ -= call.weight_bytes;
    if (call.make_change && call.token != 0 && !received.exception &&
        received.number() == queues::RETURN_TQL_SELECT)
        take_object(std::move(call), queues::data<queues::RETURN_TQL_SELECT>(received));
    else
        finish(call, received);
    send_queued();
    return true;
}

void Gateway::take_object(Call call, const dbms::Return_Tql_Select_Data& found) {
    if (found.status != 0) return answer(call, refusal(found.status, found.details));
    if (found.res.empty() && !call.asked_templates) {
        call.asked_templates = true;
        call.request = to_server<queues::TQL_SELECT>(lookup_request(call.id, true));
        queued_.push_front(std::move(call));
        return;
    }
    if (found.res.empty())
        return answer(call, refusal(errors::ERR_NO_SUCH_ID,
                                    {{3, fmt::format("{} not found", call.id.to_string())}}));
    try {
        call.request = std::exchange(call.make_change, nullptr)(found.res.front());
    } catch (const error::Exception& wrong) {
        return answer(call, refusal(wrong));
    }
    // Ahead of the others: the less time passes, the less likely is a change in between.
    queued_.push_front(std::move(call));
}

void Gateway::finish(Call& call, const queues::event& received) {
    if (call.token == 0) return;
    if (received.exception)
        return answer(call, refusal(call.failure_code,
                                    {{3, static_cast<const queues::exevent&>(received).text}}));
    switch (received.number()) {
        case queues::RETURN_TQL_SELECT:
            return answer(call, wapi::answer(queues::data<queues::RETURN_TQL_SELECT>(received)));
        case queues::RETURN_TQL_CREATE:
            return answer(call, wapi::answer(queues::data<queues::RETURN_TQL_CREATE>(received)));
        case queues::RETURN_TQL_UPDATE:
            return answer(call,
                          wapi::answer(queues::data<queues::RETURN_TQL_UPDATE>(received), call.id));
        case queues::RETURN_TQL_DELETE:
            return answer(call,
                          wapi::answer(queues::data<queues::RETURN_TQL_DELETE>(received), call.id));
        case queues::RETURN_TQL_PROPERTY_NAMES:
            return answer(call,
                          wapi::answer(queues::data<queues::RETURN_TQL_PROPERTY_NAMES>(received)));
        case queues::RETURN_NODECLASS_TRANSLATE:
            return answer(call,
                          wapi::answer(queues::data<queues::RETURN_NODECLASS_TRANSLATE>(received)));
        case queues::RETURN_TQL_CLASS_NAMES:
            return answer(
                call, call.is_health
                          ? healthy()
                          : wapi::answer(queues::data<queues::RETURN_TQL_CLASS_NAMES>(received)));
        default:
            logger.error("Unexpected reply {}", queues::event_name(&received));
            answer(
                call,
                refusal(errors::ERR_BACKEND,
                        {{3, fmt::format("Unexpected reply {}", queues::event_name(&received))}}));
    }
}

void Gateway::answer(Call& call, Response response) {
    if (call.token == 0) return;
    const token_t token = std::exchange(call.token, 0);
    ports_.answer(token, std::move(response));
}

void Gateway::peer_lost(queues::queue_t peer) {
    if (peer == kServer) refuse_all("The server ended before it answered");
}

void Gateway::stop() {
    stopped_ = true;
    refuse_all("The gateway is stopping");
}

void Gateway::refuse_all(std::string_view text) {
    auto queued = std::move(queued_);
    auto in_flight = std::move(in_flight_);
    queued_.clear();
    in_flight_.clear();
    in_flight_bytes_ = 0;
    for (auto& [uid, call] : in_flight) answer(call, refusal(unavailable(text)));
    for (Call& call : queued) answer(call, refusal(unavailable(text)));
}

std::optional<uint64_t> Gateway::next_deadline_us() const {
    std::optional<uint64_t> earliest;
    const auto consider = [&](const Call& call) {
        if (call.token != 0 && (!earliest || call.deadline_us < *earliest))
            earliest = call.deadline_us;
    };
    for (const Call& call : queued_) consider(call);
    for (const auto& [uid, call] : in_flight_) consider(call);
    return earliest;
}

void Gateway::check_deadlines() {
    const uint64_t now_us = clock_.monotonic_us();
    const auto expire = [&](Call& call) {
        if (call.token != 0 && call.deadline_us <= now_us)
            answer(call, refusal(Refused(call.is_health ? 503 : 504, "NO_ANSWER",
                                         "The server did not answer in time")));
    };
    for (auto& [uid, call] : in_flight_) expire(call);
    for (Call& call : queued_) expire(call);
    std::erase_if(queued_, [](const Call& call) { return call.token == 0; });
}

}  // namespace wapi
