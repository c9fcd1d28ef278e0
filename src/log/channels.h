// The named channels of extra diagnostics and their bits in the 64-bit log mask. A channel's name
// is also the name of the flag file that switches it on while the system runs. Channels are no
// levels and no loggers.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace logging {

struct Channel {
    std::string_view name;
    uint64_t bit;
};

inline constexpr uint64_t log_dbms_debug = uint64_t{1} << 1;
inline constexpr uint64_t log_audit = uint64_t{1} << 31;

/// All channels; `log_remcheck_debug` and `log_netcheck_debug` share a bit.
inline constexpr std::array<Channel, 34> kChannels = {{
    {"log_socketio_debug", uint64_t{1} << 0},
    {"log_dbms_debug", log_dbms_debug},
    {"log_general_debug", uint64_t{1} << 2},
    {"log_sched_debug", uint64_t{1} << 3},
    {"log_assert_debug", uint64_t{1} << 4},
    {"log_alarm_debug", uint64_t{1} << 5},
    {"log_alert_debug", uint64_t{1} << 6},
    {"log_snmp_debug", uint64_t{1} << 7},
    {"log_broadcast_debug", uint64_t{1} << 8},
    {"log_time_debug", uint64_t{1} << 9},
    {"log_remcheck_debug", uint64_t{1} << 10},
    {"log_netcheck_debug", uint64_t{1} << 10},
    {"log_brdc_frag_debug", uint64_t{1} << 11},
    {"log_report_debug", uint64_t{1} << 12},
    {"log_forecast_debug", uint64_t{1} << 13},
    {"log_dbms_anomaly", uint64_t{1} << 14},
    {"log_upgrade_debug", uint64_t{1} << 15},
    {"log_scan_debug", uint64_t{1} << 16},
    {"log_keygen_debug", uint64_t{1} << 17},
    {"log_router_debug", uint64_t{1} << 18},
    {"log_link_debug", uint64_t{1} << 19},
    {"log_station_debug", uint64_t{1} << 20},
    {"log_snmpval_debug", uint64_t{1} << 21},
    {"log_icmpcheck_debug", uint64_t{1} << 22},
    {"log_nodeclass_debug", uint64_t{1} << 23},
    {"log_gridrpc_debug", uint64_t{1} << 24},
    {"log_gridsync_debug", uint64_t{1} << 25},
    {"log_tsdb_debug", uint64_t{1} << 26},
    {"log_dbms_cpu", uint64_t{1} << 27},
    {"log_ssl_debug", uint64_t{1} << 28},
    {"log_uplink_debug", uint64_t{1} << 29},
    {"log_esxi_debug", uint64_t{1} << 30},
    {"log_audit", log_audit},
    {"log_tql_trace", uint64_t{1} << 32},
}};

}  // namespace logging
