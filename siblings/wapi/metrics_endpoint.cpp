#include "wapi/metrics_endpoint.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "log/log.h"

namespace wapi {

namespace {

constexpr queues::queue_t kServer = queues::queue_t::dbms;
constexpr queues::queue_t kSelf = queues::queue_t::wapi;
constexpr std::string_view kTextPath = "/metrics";
constexpr std::string_view kJsonPath = "/api/v1/metrics";
constexpr std::string_view kLevelsPath = "/api/v1/log-levels";

/// As people write paths: a stroke at the begin or end means nothing.
std::string tidy_path(std::string_view path) {
    while (path.starts_with('/')) path.remove_prefix(1);
    while (path.ends_with('/')) path.remove_suffix(1);
    return std::string(path);
}

}  // namespace

bool MetricsEndpoint::serves(std::string_view path) const {
    return path == kTextPath || path == kLevelsPath || path == kJsonPath ||
           path.starts_with(std::string(kJsonPath) + "/");
}

void MetricsEndpoint::take_request(token_t token, const Request& request) {
    if (stopped_) return ports_.answer(token, refusal(unavailable("The gateway is stopping")));
    try {
        if (request.path == kLevelsPath)
            set_levels(token, request);
        else
            begin(token, request);
    } catch (const error::Exception& wrong) {
        ports_.answer(token, refusal(wrong));
    }
}

void MetricsEndpoint::begin(token_t token, const Request& request) {
    allow_method(request, "GET");
    if (readings_.size() >= kMostReadings)
        throw Refused(503, "BUSY", "Too many readings of metrics at the same time");
    const uint32_t uid = ports_.new_uid();
    Reading reading{.token = token,
                    .as_text = request.path == kTextPath,
                    .deadline_us = clock_.monotonic_us() + kAnswerLimit_us,
                    .list_uid = uid};
    if (!reading.as_text) reading.below = tidy_path(request.path.substr(kJsonPath.size()));
    if (!ports_.send(queues::devent<queues::LIST_METRICS>(kServer, uid, 0)))
        throw unavailable("The server is not running");
    readings_.push_back(std::move(reading));
}

void MetricsEndpoint::set_levels(token_t token, const Request& request) {
    if (request.method != "PUT") allow_method(request, "POST");
    const LogLevelRequest wanted = log_level_request(parse_body(request.body));
    const bool has_server = !wanted.process || *wanted.process != kSelf;
    const queues::queue_t peer = wanted.process.value_or(kServer);
    if (has_server && !ports_.send(queues::devent<queues::SET_LOG_LEVEL>(peer, 0, {wanted.levels})))
        throw unavailable(fmt::format("{} is not running", queues::queue_name(peer)));
    if (!wanted.process || *wanted.process == kSelf) logging::apply_levels(wanted.levels);
    ports_.answer(token, {.status = 200, .body = "{\"ok\":true}"});
}

bool MetricsEndpoint::take_event(const queues::event& received) {
    if (received.peer != kServer) return false;
    const auto found = std::find_if(readings_.begin(), readings_.end(), [&](const Reading& each) {
        return each.list_uid == received.uid || each.asked.contains(received.uid);
    });
    if (found == readings_.end()) return false;
    if (found->list_uid == received.uid) {
        take_tree(*found, received);
    } else {
        MetricSample& sample = found->samples[found->asked.extract(received.uid).mapped()];
        if (received.number() == queues::RETURN_METRIC_UINT64)
            sample.value = queues::data<queues::RETURN_METRIC_UINT64>(received);
        else if (received.number() == queues::RETURN_METRIC_DOUBLE)
            sample.value = queues::data<queues::RETURN_METRIC_DOUBLE>(received);
        else if (received.number() == queues::RETURN_METRIC_TIMING)
            sample.value = queues::data<queues::RETURN_METRIC_TIMING>(received);
    }
    const bool server_is_gone = !ask_on(*found);
    if (server_is_gone)
        peer_lost(kServer);
    else if (!found->list_uid && found->asked.empty())
        finish(*found);
    return true;
}

void MetricsEndpoint::take_tree(Reading& reading, const queues::event& received) {
    reading.list_uid.reset();
    if (received.number() != queues::RETURN_LIST_METRICS) return;
    const auto& tree = queues::data<queues::RETURN_LIST_METRICS>(received);
    reading.samples = expand(tree);
    std::string_view below = reading.below;
    if (below == tree.name) below = {};
    if (below.starts_with(tree.name + "/")) below.remove_prefix(tree.name.size() + 1);
    std::erase_if(reading.samples,
                  [&](const MetricSample& sample) { return !is_below(sample, below); });
}

bool MetricsEndpoint::ask_on(Reading& reading) {
    while (reading.next < reading.samples.size() && reading.asked.size() < kWindow) {
        const uint32_t uid = ports_.new_uid();
        if (!ports_.send(queues::devent<queues::GET_METRIC>(
                kServer, uid, {.id = reading.samples[reading.next].path})))
            return false;
        reading.asked[uid] = reading.next++;
    }
    return true;
}

void MetricsEndpoint::finish(Reading& reading) {
    const token_t token = reading.token;
    Response response =
        reading.as_text ? prometheus(reading.samples) : metrics_json(reading.samples);
    if (std::none_of(reading.samples.begin(), reading.samples.end(),
                     [](const MetricSample& sample) { return sample.value.has_value(); }))
        response = refusal(
            Refused(404, "NOT_FOUND", fmt::format("There is no metric at {}", reading.below)));
    std::erase_if(readings_, [&](const Reading& each) { return each.token == token; });
    ports_.answer(token, std::move(response));
}

void MetricsEndpoint::peer_lost(queues::queue_t peer) {
    if (peer == kServer) refuse_all("The server ended before it answered");
}

void MetricsEndpoint::stop() {
    stopped_ = true;
    refuse_all("The gateway is stopping");
}

void MetricsEndpoint::refuse_all(std::string_view text) {
    const std::vector<Reading> refused = std::move(readings_);
    readings_.clear();
    for (const Reading& each : refused) ports_.answer(each.token, refusal(unavailable(text)));
}

std::optional<uint64_t> MetricsEndpoint::next_deadline_us() const {
    // All have the same patience, so the first to come is the first to lose it.
    if (readings_.empty()) return std::nullopt;
    return readings_.front().deadline_us;
}

// Values that come later find no reading and are logged like any reply that nobody waits for.
void MetricsEndpoint::check_deadlines() {
    while (!readings_.empty() && readings_.front().deadline_us <= clock_.monotonic_us()) {
        const token_t token = readings_.front().token;
        readings_.erase(readings_.begin());
        ports_.answer(token,
                      refusal(Refused(504, "NO_ANSWER", "The server did not answer in time")));
    }
}

}  // namespace wapi
