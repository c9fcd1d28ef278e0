#include "main/config.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <filesystem>
#include <fstream>
#include <limits>
#include <toml++/toml.h>
#include <type_traits>

#include "error/exception.h"
#include "io/pool_layout.h"

namespace mainprocess {

namespace {

constexpr uint32_t kPoolBytes = 64U << 20;
constexpr uint32_t kServerSliceBytes = 16U << 20;
constexpr uint32_t kSliceBytes = 4U << 20;
constexpr uint32_t kMinSliceBytes = 4096;
constexpr int64_t kLongestSpan_s = 86'400;
constexpr uint64_t kLeastLogFileBytes = 4096;

/// Siblings that a file may name, with the short names that logs use.
struct KnownSibling {
    const char* name;
    queues::queue_t queue;
};
constexpr std::array kKnownSiblings{
    KnownSibling{"dbms", queues::queue_t::dbms},   KnownSibling{"wapi", queues::queue_t::wapi},
    KnownSibling{"tsdb", queues::queue_t::tsdb},   KnownSibling{"alarm", queues::queue_t::alrm},
    KnownSibling{"alert", queues::queue_t::alrt},  KnownSibling{"remcheck", queues::queue_t::rmch},
    KnownSibling{"snmp", queues::queue_t::snmp},   KnownSibling{"scheduler", queues::queue_t::schd},
    KnownSibling{"extra", queues::queue_t::extra},
};

queues::queue_t known_queue(const std::string& name, const std::string& where) {
    for (const KnownSibling& known : kKnownSiblings)
        if (name == known.name) return known.queue;
    throw error::EFatal(fmt::format("{}: \"{}\" is no sibling", where, name));
}

[[noreturn]] void refuse(const toml::node& node, const std::string& key,
                         const std::string& expected) {
    const toml::source_region& source = node.source();
    throw error::EFatal(fmt::format("{}:{}: {} must be {}", source.path ? *source.path : "",
                                    source.begin.line, key, expected));
}

std::string position(const toml::node& node) {
    const toml::source_region& source = node.source();
    return fmt::format("{}:{}", source.path ? *source.path : "", source.begin.line);
}

void assign(std::string& field, const toml::node& node, const std::string& key) {
    const auto value = node.value_exact<std::string>();
    if (!value) refuse(node, key, "a text");
    field = *value;
}

void assign(bool& field, const toml::node& node, const std::string& key) {
    const auto value = node.value_exact<bool>();
    if (!value) refuse(node, key, "true or false");
    field = *value;
}

template <std::integral Number>
void assign(Number& field, const toml::node& node, const std::string& key) {
    const auto value = node.value_exact<int64_t>();
    if (!value || !std::in_range<Number>(*value))
        refuse(node, key,
               fmt::format("a whole number from {} to {}", std::numeric_limits<Number>::min(),
                           std::numeric_limits<Number>::max()));
    field = static_cast<Number>(*value);
}

void assign(std::set<std::string>& field, const toml::node& node, const std::string& key) {
    const toml::array* list = node.as_array();
    if (list == nullptr) refuse(node, key, "a list of texts");
    field.clear();
    for (const toml::node& element : *list) {
        std::string text;
        assign(text, element, key);
        field.insert(std::move(text));
    }
}

/// Time spans are given in seconds, with a fraction if wanted.
void assign(Time& field, const toml::node& node, const std::string& key) {
    constexpr double kLongest_s = 1e9;
    const auto value = node.value<double>();
    if (!value || !(*value >= 0 && *value <= kLongest_s)) refuse(node, key, "a number of seconds");
    field = Time(1) * *value;
}

void assign_within(int64_t& field, const toml::node& node, const std::string& key, int64_t least,
                   int64_t most) {
    const auto value = node.value_exact<int64_t>();
    if (!value || *value < least || *value > most)
        refuse(node, key, fmt::format("a whole number from {} to {}", least, most));
    field = *value;
}

template <std::integral Number>
void assign_at_least(Number& field, const toml::node& node, const std::string& key, Number least) {
    assign(field, node, key);
    if (field < least) refuse(node, key, fmt::format("a whole number, at least {}", least));
}

void read_server_table(control::Server_Configuration_Fields& server, const toml::table& table) {
    using Record = control::Server_Configuration_Fields;
    for (const auto& [key, node] : table) {
        const std::string name{key.str()};
        if (name == "wapi_port") {
            int64_t port = 0;
            assign_within(port, node, "server." + name, 1, 65'535);
        }
        bool known = false;
        Record::fields(server, [&](std::string_view field_name, auto& field) {
            if (field_name != name) return;
            known = true;
            assign(field, node, "server." + name);
        });
        if (!known)
            throw error::EFatal(fmt::format("{}: server.{} is no setting", position(node), name));
    }
}

void read_family_table(Config& config, const toml::table& table) {
    for (const auto& [key, node] : table) {
        const std::string name{key.str()};
        const std::string full = "family." + name;
        if (name == "restart_first_delay_ms")
            assign_within(config.restart.first_delay_ms, node, full, 1, kLongestSpan_s * 1000);
        else if (name == "restart_longest_delay_ms")
            assign_within(config.restart.longest_delay_ms, node, full, 1, kLongestSpan_s * 1000);
        else if (name == "restart_stable_after_ms")
            assign_within(config.restart.stable_after_ms, node, full, 1, kLongestSpan_s * 1000);
        else if (name == "start_warning_ms")
            assign_within(config.patience.start_warning_ms, node, full, 1, kLongestSpan_s * 1000);
        else if (name == "stuck_warning_ms")
            assign_within(config.patience.stuck_warning_ms, node, full, 1, kLongestSpan_s * 1000);
        else if (name == "stuck_limit_ms")
            assign_within(config.patience.stuck_limit_ms, node, full, 1, kLongestSpan_s * 1000);
        else if (name == "stop_timeout_s")
            assign_within(config.stop_timeout_s, node, full, 1, kLongestSpan_s);
        else if (name == "log_dir")
            assign(config.log_dir, node, full);
        else if (name == "log_file_bytes")
            assign_at_least(config.log_limits.file_bytes, node, full, kLeastLogFileBytes);
        else if (name == "log_files_kept")
            assign(config.log_limits.files_kept, node, full);
        else
            throw error::EFatal(fmt::format("{}: {} is no setting", position(node), full));
    }
}

SiblingConfig& ensure_sibling(Config& config, const std::string& name, queues::queue_t queue,
                              const std::string& program_dir) {
    for (SiblingConfig& sibling : config.siblings)
        if (sibling.queue == queue) return sibling;
    config.siblings.push_back(
        {name, queue, program_dir + "/" + name, {queues::queue_t::dbms}, kSliceBytes, true});
    return config.siblings.back();
}

void read_depend_on(SiblingConfig& sibling, const toml::node& node, const std::string& key) {
    std::set<std::string> names;
    assign(names, node, key);
    sibling.depend_on.clear();
    for (const std::string& name : names)
        sibling.depend_on.insert(known_queue(name, position(node)));
}

void read_sibling_table(SiblingConfig& sibling, const toml::table& table) {
    for (const auto& [key, node] : table) {
        const std::string name{key.str()};
        const std::string full = fmt::format("siblings.{}.{}", sibling.name, name);
        if (name == "program")
            assign(sibling.program, node, full);
        else if (name == "enabled")
            assign(sibling.enabled, node, full);
        else if (name == "slice_size_bytes") {
            assign(sibling.slice_size_bytes, node, full);
            if (sibling.slice_size_bytes % 8 != 0 || sibling.slice_size_bytes < kMinSliceBytes)
                refuse(node, full, fmt::format("a multiple of 8, at least {}", kMinSliceBytes));
        } else if (name == "depend_on")
            read_depend_on(sibling, node, full);
        else
            throw error::EFatal(fmt::format("{}: {} is no setting", position(node), full));
    }
}

const toml::table& as_table(const toml::node& node, const std::string& key) {
    const toml::table* table = node.as_table();
    if (table == nullptr) refuse(node, key, "a table");
    return *table;
}

/// Refuses siblings that wait for each other: none of them would ever be started.
void check_no_circle(const Config& config, const std::string& path) {
    std::set<queues::queue_t> waiting;
    for (const SiblingConfig& sibling : config.siblings)
        if (sibling.enabled) waiting.insert(sibling.queue);
    for (size_t left = waiting.size() + 1; left > waiting.size();) {
        left = waiting.size();
        for (const SiblingConfig& sibling : config.siblings)
            if (std::none_of(sibling.depend_on.begin(), sibling.depend_on.end(),
                             [&](queues::queue_t needed) { return waiting.contains(needed); }))
                waiting.erase(sibling.queue);
    }
    for (const SiblingConfig& sibling : config.siblings)
        if (waiting.contains(sibling.queue))
            throw error::EFatal(
                fmt::format("{}: siblings.{}.depend_on leads into a circle", path, sibling.name));
}

/// Refuses a pool in which the family could never come up.
void check_pool_size(const Config& config, const std::string& path) {
    uint64_t needed = io::pool_layout::kFirstAreaOffset + kOwnSliceBytes;
    for (const SiblingConfig& sibling : config.siblings)
        if (sibling.enabled) needed += sibling.slice_size_bytes;
    if (config.server.smem_size < needed)
        throw error::EFatal(
            fmt::format("{}: server.smem_size must be at least {}, the write areas of all siblings",
                        path, needed));
}

/// Settings that are neither empty nor zero to begin with.
void set_defaults(control::Server_Configuration_Fields& server) {
    server.dbms_tsdb_file_path = "var/tarmik.tsdb";
    server.dbms_odb_file_path = "var/tarmik.odb";
    server.dbms_odbj_file_path = "var/tarmik.odbj";
    // A walk over more objects than the two queues of newcomers hold finds none of them again the
    // next time, however much room the main queue has. These hold a tree of 150,000.
    server.dbms_cache_size = 150'000;
    server.dbms_cache_kin = 25'000;
    server.dbms_cache_kout = 125'000;
    server.dbms_buffer_blocks = 16'384;
    server.variable_file = "var/variables.json";
    server.smem_size = kPoolBytes;
    server.smem_prefix = "var/run/fifo";
    server.resource_directory = "var";
    server.socketio_bind_port = 7740;
    server.broadcast_bind_port = 7741;
    server.socketio_max_pending_connections = 128;
    server.socketio_max_connections = 4096;
    server.socketio_max_inflight = 256;
    server.socketio_agentconf_rate = 10;
    server.socketio_agentconf_burst = 50;
    server.remcheck_limit_children = 64;
    server.remcheck_ping_spacing = 20;
    server.netcheck_process_pool_size = 8;
    server.dns_cache_secs = 300;
    server.system_log_dir_path = "var/log";
    server.log_days = 30;
    server.working_directory = "var";
    server.alert_attempts = 3;
    server.alert_retry_delay = 60;
    server.alert_defer_at_boot = 300;
    server.agent_checkin_delay = 10;
    server.max_snmp_table_entries = 10'000;
    server.snmp_reconfig_delay = 60;
    server.snmp_max_retrans = 3;
    server.snmp_max_retrans_walk = 5;
    server.snmp_timeout_initial = Time(2);
    server.snmp_timeout_max = Time(30);
    server.snmp_packet_spacing = 10;
    server.mtu = 1500;
    server.spare_keypool_size = 4;
    server.concurrent_check_recoveries = 4;
    server.max_scan_processes = 4;
    server.ssec_keylength = 2048;
    server.ssec_min_keylength = 1024;
    server.ssec_secret_keylength = 256;
    server.ssec_secret_min_keylength = 128;
    server.ssec_secret_lifetime = 3600;
    server.grid_default_ttl = 16;
    server.master_notify_queue = 1000;
    server.allowed_candidate_nodes = 1000;
    server.tsdb_buffer_entries = 100'000;
    server.tsdb_buffer_write_min = 1000;
    server.tsdb_buffer_age_max = 60;
    server.tsdb_buffer_flush_batch = 1000;
    server.wapi_enabled = true;
    server.wapi_port = 8740;
    server.wapi_threads = 1;
}

}  // namespace

Config default_config(const std::string& program_dir) {
    Config config;
    config.log_dir = "var/log";
    config.siblings = {
        // The server doesn't wait for the time series: it asks for them when it needs one.
        {"tsdb", queues::queue_t::tsdb, program_dir + "/tsdb", {}, kSliceBytes, true, true},
        {"dbms", queues::queue_t::dbms, program_dir + "/dbms", {}, kServerSliceBytes, true},
        {"wapi",
         queues::queue_t::wapi,
         program_dir + "/wapi",
         {queues::queue_t::dbms},
         kServerSliceBytes,
         true},
    };
    set_defaults(config.server);
    // Belongs to the programs, not to the data: it is found from wherever the family is started.
    config.server.layout_conf_path = program_dir + "/../conf/layout.conf";
    return config;
}

Config read_config(const std::string& path, const std::string& program_dir) {
    if (!std::ifstream(path) || std::filesystem::is_directory(path))
        throw error::EFatal(fmt::format("Cannot read configuration {}", path));
    toml::table file;
    try {
        file = toml::parse_file(path);
    } catch (const toml::parse_error& reason) {
        throw error::EFatal(fmt::format("{}:{}:{}: {}", path, reason.source().begin.line,
                                        reason.source().begin.column, reason.description()));
    }
    Config config = default_config(program_dir);
    for (const auto& [key, node] : file) {
        const std::string name{key.str()};
        if (name == "server") {
            read_server_table(config.server, as_table(node, name));
        } else if (name == "family") {
            read_family_table(config, as_table(node, name));
        } else if (name == "siblings") {
            for (const auto& [sibling_key, sibling_node] : as_table(node, name)) {
                const std::string sibling_name{sibling_key.str()};
                const queues::queue_t queue = known_queue(sibling_name, position(sibling_node));
                read_sibling_table(ensure_sibling(config, sibling_name, queue, program_dir),
                                   as_table(sibling_node, "siblings." + sibling_name));
            }
        } else {
            throw error::EFatal(fmt::format("{}: {} is no setting", position(node), name));
        }
    }
    for (SiblingConfig& sibling : config.siblings)
        if (sibling.queue == queues::queue_t::wapi)
            sibling.enabled = sibling.enabled && config.server.wapi_enabled;
    check_no_circle(config, path);
    check_pool_size(config, path);
    return config;
}

}  // namespace mainprocess
