#include "queues/introspection.h"

#include "log/log.h"
#include "queues/records/control.h"

namespace queues {

namespace {

meter::Group metering_group{"metering"};
meter::MicroSecondTiming metering_time{&metering_group, "time", "Time spent in metering routines"};

control::Metric describe(const meter::Metric& metric) {
    return {.name = std::string(metric.name()),
            .unit = std::string(metric.unit()),
            .desc = std::string(metric.description()),
            .type = static_cast<std::uint32_t>(metric.type())};
}

control::Metric_Group describe(const meter::Group& group) {
    control::Metric_Group described{
        .name = std::string(group.name()), .groups = {}, .tables = {}, .metrics = {}};
    for (const meter::Group* inner : group.groups()) described.groups.push_back(describe(*inner));
    for (const meter::Table* table : group.tables()) {
        const std::vector<std::string> instances = table->instances();
        described.tables.push_back({.group = describe(static_cast<const meter::Group&>(*table)),
                                    .instances = {instances.begin(), instances.end()}});
    }
    for (const meter::Metric* metric : group.metrics())
        described.metrics.push_back(describe(*metric));
    return described;
}

}  // namespace

Introspection::Introspection(childqueue& queue, const meter::Tree& metrics,
                             const platform::Clock& clock)
    : queue_(queue), metrics_(metrics), clock_(clock) {
    queue_.send(devent<SUPPORTS_METRICS>(queue_t::main, 0, 0));
}

bool Introspection::consumed(const event& received) {
    if (received.number() == SET_LOG_LEVEL) {
        logging::apply_levels(data<SET_LOG_LEVEL>(received).logger_level);
        return true;
    }
    if (received.number() != GET_METRIC && received.number() != GET_METRIC_TYPE &&
        received.number() != LIST_METRICS)
        return false;
    const meter::TimingScope timing(metering_time, clock_);
    try {
        if (received.number() == GET_METRIC)
            answer_value(received);
        else if (received.number() == GET_METRIC_TYPE)
            answer_type(received);
        else
            reply<RETURN_LIST_METRICS>(received, describe(metrics_.root()));
    } catch (const meter::EUnknownMetric& wrong) {
        reply<RETURN_METRIC_ERROR>(received, wrong.text());
    } catch (const meter::ENoSuchInstance& wrong) {
        reply<RETURN_METRIC_ERROR>(received, wrong.text());
    }
    return true;
}

template <event_t N>
void Introspection::reply(const event& asked, record_t<N> record) {
    if (!wants_reply(asked.uid) || asked.peer == queue_t::none) return;
    queue_.send(devent<N>(asked.peer, asked.uid, std::move(record)));
}

void Introspection::answer_value(const event& asked) {
    const meter::Value value = metrics_.get(data<GET_METRIC>(asked).id).read();
    if (const auto* timing = std::get_if<meter::TimingValue>(&value))
        reply<RETURN_METRIC_TIMING>(asked, {.count = timing->count,
                                            .min = timing->min,
                                            .max = timing->max,
                                            .sum = timing->sum,
                                            .sum_squares = timing->sum_of_squares});
    else
        reply<RETURN_METRIC_UINT64>(asked, std::get<uint64_t>(value));
}

void Introspection::answer_type(const event& asked) {
    reply<RETURN_GET_METRIC_TYPE>(asked, describe(metrics_.get(data<GET_METRIC_TYPE>(asked).id)));
}

}  // namespace queues
