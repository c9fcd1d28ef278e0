#include "queues/series_kinds.h"

namespace tsdb {

namespace {

time_series_layout_t measured(series_type_t type) {
    return {type, {{10'080, 60}, {2'880, 900}, {2'880, 1'800}, {8'640, 3'600}, {8'640, 10'800}}};
}

time_series_layout_t incidents(uint32_t records) {
    return {incident, {{records, 1}}};
}

}  // namespace

const time_series_layout_t& continuous_layout() {
    static const time_series_layout_t layout = measured(continuous);
    return layout;
}
const time_series_layout_t& enumerated_layout() {
    static const time_series_layout_t layout = measured(enumerated);
    return layout;
}
const time_series_layout_t& uptime_layout() {
    static const time_series_layout_t layout = measured(uptime);
    return layout;
}
const time_series_layout_t& small_incident_layout() {
    static const time_series_layout_t layout = incidents(102'400);
    return layout;
}
const time_series_layout_t& large_incident_layout() {
    static const time_series_layout_t layout = incidents(1'048'576);
    return layout;
}

}  // namespace tsdb
