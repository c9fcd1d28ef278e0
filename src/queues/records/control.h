// Records of the main process: configuration, variable fields, randomness, metrics, log lines,
// start and stop.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "queues/event_types.h"
#include "util/time.h"

namespace control {

/// Stop order of the main process.
struct Sys_Exit_Data {
    std::uint32_t reason = 0;
    queues::queue_t requested_by = queues::queue_t::none;
    std::string error_msg{};

    static constexpr std::string_view record = "Sys_Exit_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("reason", self.reason);
        visit("requested_by", self.requested_by);
        visit("error_msg", self.error_msg);
    }
};

/// A sibling is ready; it needs those named to be up.
struct Init_Ok_Data {
    std::set<queues::queue_t> depend_on{};

    static constexpr std::string_view record = "Init_Ok_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("depend_on", self.depend_on); }
};

/// One log line; `log_type` is 0.
struct Log_Request_Data {
    std::string msg{};
    std::uint32_t log_type = 0;

    static constexpr std::string_view record = "Log_Request_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("msg", self.msg);
        visit("log_type", self.log_type);
    }
};

/// The configuration that every sibling gets, the same for all; defaults are the main process's
/// business.
struct Server_Configuration_Fields {
    std::string layout_conf_path{};
    std::string dbms_tsdb_file_path{};
    std::string dbms_odb_file_path{};
    std::string dbms_odbj_file_path{};
    std::string dbms_cache_tracefile{};
    std::string dbms_event_tracefile{};
    std::string dbms_tsdb_tracefile{};
    std::uint32_t dbms_cache_size = 0;
    std::uint32_t dbms_cache_kin = 0;
    std::uint32_t dbms_cache_kout = 0;
    std::uint32_t dbms_buffer_blocks = 0;
    std::string variable_file{};
    std::uint32_t smem_size = 0;
    std::string smem_prefix{};
    std::string resource_directory{};
    std::uint64_t log_mask = 0;
    bool passive = false;
    std::uint32_t socketio_bind_port = 0;
    std::uint32_t broadcast_bind_port = 0;
    bool socketio_legacy = false;
    std::uint32_t socketio_max_pending_connections = 0;
    std::uint32_t socketio_max_connections = 0;
    std::uint32_t socketio_max_inflight = 0;
    std::uint32_t socketio_agentconf_rate = 0;
    std::uint32_t socketio_agentconf_burst = 0;
    std::uint32_t remcheck_limit_children = 0;
    std::uint32_t remcheck_ping_spacing = 0;
    std::uint16_t netcheck_process_pool_size = 0;
    std::string custom_netcheck_conf{};
    std::uint32_t dns_cache_secs = 0;
    std::string libssl{};
    std::string system_log_dir_path{};
    std::uint32_t log_days = 0;
    std::string working_directory{};
    bool disable_alerts = false;
    std::string alert_textmail_ending{};
    std::string alert_sms_ending{};
    std::string alert_sms_subject{};
    std::string alert_htmlmail_ending{};
    std::string webinterface_url{};
    std::string mail_server{};
    std::string mail_from{};
    std::string reply_mail_to{};
    std::string modem_port{};
    std::string modem_init{};
    std::string modem_sim_pin{};
    std::set<std::string> modem_options{};
    std::uint32_t modem_baud_rate = 0;
    std::uint32_t modem_pager_timeout = 0;
    bool alert_to_event_log = false;
    bool alert_to_incident_log = false;
    std::uint32_t alert_defer_at_boot = 0;
    std::uint32_t alert_attempts = 0;
    std::uint32_t alert_retry_delay = 0;
    std::uint32_t agent_checkin_delay = 0;
    std::uint32_t max_snmp_table_entries = 0;
    std::uint32_t snmp_reconfig_delay = 0;
    std::uint32_t snmp_max_retrans = 0;
    std::uint32_t snmp_max_retrans_walk = 0;
    Time snmp_timeout_initial{};
    Time snmp_timeout_max{};
    std::uint32_t snmp_packet_spacing = 0;
    std::uint32_t mtu = 0;
    std::string host_name{};
    std::string cluster_members{};
    std::string cluster_options{};
    std::string report_generator{};
    bool upload_serverinfo = false;
    std::string agent_package_path{};
    std::uint32_t spare_keypool_size = 0;
    std::uint32_t keypool_reuse = 0;
    std::uint32_t skio_insecure = 0;
    std::uint32_t concurrent_check_recoveries = 0;
    std::string stop_on_log_match{};
    std::uint32_t max_scan_processes = 0;
    std::uint32_t ssec_keylength = 0;
    std::uint32_t ssec_min_keylength = 0;
    std::uint32_t ssec_secret_keylength = 0;
    std::uint32_t ssec_secret_min_keylength = 0;
    std::uint32_t ssec_secret_lifetime = 0;
    std::uint32_t grid_default_ttl = 0;
    std::uint32_t master_notify_queue = 0;
    std::uint32_t satellite_tsdb_async = 0;
    std::uint32_t allowed_candidate_nodes = 0;
    bool tsdb_upgrade_discard_bufferlevels = false;
    std::uint32_t tsdb_buffer_entries = 0;
    std::uint32_t tsdb_buffer_write_min = 0;
    std::uint32_t tsdb_buffer_age_max = 0;
    std::uint32_t tsdb_buffer_flush_batch = 0;
    bool wapi_enabled = false;
    std::uint32_t wapi_port = 0;
    bool wapi_use_ssl = false;
    std::uint32_t wapi_threads = 0;
    std::string wapi_ssl_cert_path{};
    std::string ios_cert_path{};

    static constexpr std::string_view record = "Server_Configuration_Fields";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("layout_conf_path", self.layout_conf_path);
        visit("dbms_tsdb_file_path", self.dbms_tsdb_file_path);
        visit("dbms_odb_file_path", self.dbms_odb_file_path);
        visit("dbms_odbj_file_path", self.dbms_odbj_file_path);
        visit("dbms_cache_tracefile", self.dbms_cache_tracefile);
        visit("dbms_event_tracefile", self.dbms_event_tracefile);
        visit("dbms_tsdb_tracefile", self.dbms_tsdb_tracefile);
        visit("dbms_cache_size", self.dbms_cache_size);
        visit("dbms_cache_kin", self.dbms_cache_kin);
        visit("dbms_cache_kout", self.dbms_cache_kout);
        visit("dbms_buffer_blocks", self.dbms_buffer_blocks);
        visit("variable_file", self.variable_file);
        visit("smem_size", self.smem_size);
        visit("smem_prefix", self.smem_prefix);
        visit("resource_directory", self.resource_directory);
        visit("log_mask", self.log_mask);
        visit("passive", self.passive);
        visit("socketio_bind_port", self.socketio_bind_port);
        visit("broadcast_bind_port", self.broadcast_bind_port);
        visit("socketio_legacy", self.socketio_legacy);
        visit("socketio_max_pending_connections", self.socketio_max_pending_connections);
        visit("socketio_max_connections", self.socketio_max_connections);
        visit("socketio_max_inflight", self.socketio_max_inflight);
        visit("socketio_agentconf_rate", self.socketio_agentconf_rate);
        visit("socketio_agentconf_burst", self.socketio_agentconf_burst);
        visit("remcheck_limit_children", self.remcheck_limit_children);
        visit("remcheck_ping_spacing", self.remcheck_ping_spacing);
        visit("netcheck_process_pool_size", self.netcheck_process_pool_size);
        visit("custom_netcheck_conf", self.custom_netcheck_conf);
        visit("dns_cache_secs", self.dns_cache_secs);
        visit("libssl", self.libssl);
        visit("system_log_dir_path", self.system_log_dir_path);
        visit("log_days", self.log_days);
        visit("working_directory", self.working_directory);
        visit("disable_alerts", self.disable_alerts);
        visit("alert_textmail_ending", self.alert_textmail_ending);
        visit("alert_sms_ending", self.alert_sms_ending);
        visit("alert_sms_subject", self.alert_sms_subject);
        visit("alert_htmlmail_ending", self.alert_htmlmail_ending);
        visit("webinterface_url", self.webinterface_url);
        visit("mail_server", self.mail_server);
        visit("mail_from", self.mail_from);
        visit("reply_mail_to", self.reply_mail_to);
        visit("modem_port", self.modem_port);
        visit("modem_init", self.modem_init);
        visit("modem_sim_pin", self.modem_sim_pin);
        visit("modem_options", self.modem_options);
        visit("modem_baud_rate", self.modem_baud_rate);
        visit("modem_pager_timeout", self.modem_pager_timeout);
        visit("alert_to_event_log", self.alert_to_event_log);
        visit("alert_to_incident_log", self.alert_to_incident_log);
        visit("alert_defer_at_boot", self.alert_defer_at_boot);
        visit("alert_attempts", self.alert_attempts);
        visit("alert_retry_delay", self.alert_retry_delay);
        visit("agent_checkin_delay", self.agent_checkin_delay);
        visit("max_snmp_table_entries", self.max_snmp_table_entries);
        visit("snmp_reconfig_delay", self.snmp_reconfig_delay);
        visit("snmp_max_retrans", self.snmp_max_retrans);
        visit("snmp_max_retrans_walk", self.snmp_max_retrans_walk);
        visit("snmp_timeout_initial", self.snmp_timeout_initial);
        visit("snmp_timeout_max", self.snmp_timeout_max);
        visit("snmp_packet_spacing", self.snmp_packet_spacing);
        visit("mtu", self.mtu);
        visit("host_name", self.host_name);
        visit("cluster_members", self.cluster_members);
        visit("cluster_options", self.cluster_options);
        visit("report_generator", self.report_generator);
        visit("upload_serverinfo", self.upload_serverinfo);
        visit("agent_package_path", self.agent_package_path);
        visit("spare_keypool_size", self.spare_keypool_size);
        visit("keypool_reuse", self.keypool_reuse);
        visit("skio_insecure", self.skio_insecure);
        visit("concurrent_check_recoveries", self.concurrent_check_recoveries);
        visit("stop_on_log_match", self.stop_on_log_match);
        visit("max_scan_processes", self.max_scan_processes);
        visit("ssec_keylength", self.ssec_keylength);
        visit("ssec_min_keylength", self.ssec_min_keylength);
        visit("ssec_secret_keylength", self.ssec_secret_keylength);
        visit("ssec_secret_min_keylength", self.ssec_secret_min_keylength);
        visit("ssec_secret_lifetime", self.ssec_secret_lifetime);
        visit("grid_default_ttl", self.grid_default_ttl);
        visit("master_notify_queue", self.master_notify_queue);
        visit("satellite_tsdb_async", self.satellite_tsdb_async);
        visit("allowed_candidate_nodes", self.allowed_candidate_nodes);
        visit("tsdb_upgrade_discard_bufferlevels", self.tsdb_upgrade_discard_bufferlevels);
        visit("tsdb_buffer_entries", self.tsdb_buffer_entries);
        visit("tsdb_buffer_write_min", self.tsdb_buffer_write_min);
        visit("tsdb_buffer_age_max", self.tsdb_buffer_age_max);
        visit("tsdb_buffer_flush_batch", self.tsdb_buffer_flush_batch);
        visit("wapi_enabled", self.wapi_enabled);
        visit("wapi_port", self.wapi_port);
        visit("wapi_use_ssl", self.wapi_use_ssl);
        visit("wapi_threads", self.wapi_threads);
        visit("wapi_ssl_cert_path", self.wapi_ssl_cert_path);
        visit("ios_cert_path", self.ios_cert_path);
    }
};

/// Named values kept across restarts by the main process.
struct Server_Variable_Fields {
    std::map<std::string, std::string> vars{};

    static constexpr std::string_view record = "Server_Variable_Fields";
    static constexpr void fields(auto& self, auto&& visit) { visit("vars", self.vars); }
};

struct Get_Pseudo_Random_Data {
    std::uint32_t bytes = 0;
    bool prefer_pure_entropy = false;

    static constexpr std::string_view record = "Get_Pseudo_Random_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("bytes", self.bytes);
        visit("prefer_pure_entropy", self.prefer_pure_entropy);
    }
};

/// Path of a metric from the root; an element behind a table names the instance.
struct Get_Metric_Data {
    std::list<std::string> id{};

    static constexpr std::string_view record = "Get_Metric_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("id", self.id); }
};

/// Durations in microseconds.
struct Return_Metric_Timing_Data {
    std::uint64_t count = 0;
    std::uint64_t min = 0;
    std::uint64_t max = 0;
    std::uint64_t sum = 0;
    std::uint64_t sum_squares = 0;

    static constexpr std::string_view record = "Return_Metric_Timing_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("count", self.count);
        visit("min", self.min);
        visit("max", self.max);
        visit("sum", self.sum);
        visit("sum_squares", self.sum_squares);
    }
};

struct Get_Metric_Type_Data {
    std::list<std::string> id{};

    static constexpr std::string_view record = "Get_Metric_Type_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("id", self.id); }
};

struct Metric {
    std::string name{};
    std::string unit{};
    std::string desc{};
    std::uint32_t type = 0;

    static constexpr std::string_view record = "Metric";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("name", self.name);
        visit("unit", self.unit);
        visit("desc", self.desc);
        visit("type", self.type);
    }
};

struct Metric_Table;

/// A group of the metric tree with everything below it.
struct Metric_Group {
    std::string name{};
    std::list<Metric_Group> groups{};
    std::list<Metric_Table> tables{};
    std::list<Metric> metrics{};

    static constexpr std::string_view record = "Metric_Group";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("name", self.name);
        visit("groups", self.groups);
        visit("tables", self.tables);
        visit("metrics", self.metrics);
    }
};

/// A group that exists once for each instance, with the names of the instances.
struct Metric_Table {
    Metric_Group group{};
    std::list<std::string> instances{};

    static constexpr std::string_view record = "Metric_Table";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("group", self.group);
        visit("instances", self.instances);
    }
};

/// Levels by logger name; the key * means all.
struct Set_Log_Level_Data {
    std::map<std::string, std::uint32_t> logger_level{};

    static constexpr std::string_view record = "Set_Log_Level_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("logger_level", self.logger_level);
    }
};

}  // namespace control
