// Records of the siblings that carry out work for the server: scheduler, remote checks, SNMP, ESXi,
// reports and the network scan. The server has no handler for them; they stand here because all
// siblings share one catalogue.
#pragma once

#include <cstdint>
#include <list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "queues/records/dbms_checks.h"
#include "tql/id.h"
#include "util/time.h"

namespace scheduler {

/// Deliver the encoded event at a moment.
struct Schedule_Event_Absolute_Data {
    std::int64_t time = 0;
    std::uint32_t event = 0;
    std::string encoded_event{};

    static constexpr std::string_view record = "Schedule_Event_Absolute_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("time", self.time);
        visit("event", self.event);
        visit("encoded_event", self.encoded_event);
    }
};

/// Deliver the encoded event after a delay.
struct Schedule_Event_Relative_Data {
    Time delay{};
    std::uint32_t event = 0;
    std::string encoded_event{};

    static constexpr std::string_view record = "Schedule_Event_Relative_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("delay", self.delay);
        visit("event", self.event);
        visit("encoded_event", self.encoded_event);
    }
};

}  // namespace scheduler

namespace remcheck {

/// How one net check is to be done; `timeout` in seconds.
struct remcheck_conf {
    tql::id_t check_id{};
    std::string host{};
    std::uint32_t port = 0;
    std::uint32_t check_type = 0;
    std::uint32_t timeout = 0;
    std::uint32_t attempts = 0;
    std::list<std::string> parameters{};

    static constexpr std::string_view record = "remcheck_conf";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("check_id", self.check_id);
        visit("host", self.host);
        visit("port", self.port);
        visit("check_type", self.check_type);
        visit("timeout", self.timeout);
        visit("attempts", self.attempts);
        visit("parameters", self.parameters);
    }
};

struct Remote_Check_Data {
    tql::id_t check_id{};

    static constexpr std::string_view record = "Remote_Check_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("check_id", self.check_id); }
};

struct Check_Timeout_Data {
    tql::id_t check_id{};
    std::uint32_t attempt = 0;

    static constexpr std::string_view record = "Check_Timeout_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("check_id", self.check_id);
        visit("attempt", self.attempt);
    }
};

struct Icmp_Request_Data {
    std::string address{};
    std::uint32_t sequence = 0;
    std::uint32_t size = 0;

    static constexpr std::string_view record = "Icmp_Request_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("address", self.address);
        visit("sequence", self.sequence);
        visit("size", self.size);
    }
};

/// `replytime` in microseconds.
struct Icmp_Echo_Reply_Data {
    std::string address{};
    std::uint32_t sequence = 0;
    std::uint32_t replytime = 0;

    static constexpr std::string_view record = "Icmp_Echo_Reply_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("address", self.address);
        visit("sequence", self.sequence);
        visit("replytime", self.replytime);
    }
};

}  // namespace remcheck

namespace snmp {

struct Esxi_Probe_Data {
    tql::id_t node_id{};
    std::string host{};
    std::string user{};
    std::string password{};

    static constexpr std::string_view record = "Esxi_Probe_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("node_id", self.node_id);
        visit("host", self.host);
        visit("user", self.user);
        visit("password", self.password);
    }
};

struct Esxi_Probe_Result_Data {
    tql::id_t node_id{};
    std::uint32_t status = 0;
    std::list<std::string> entities{};
    std::string message{};

    static constexpr std::string_view record = "Esxi_Probe_Result_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("node_id", self.node_id);
        visit("status", self.status);
        visit("entities", self.entities);
        visit("message", self.message);
    }
};

struct Snmp_Check_Data {
    tql::id_t check_id{};

    static constexpr std::string_view record = "Snmp_Check_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("check_id", self.check_id); }
};

struct Snmp_Timeout_Data {
    std::uint32_t request_id = 0;

    static constexpr std::string_view record = "Snmp_Timeout_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("request_id", self.request_id); }
};

struct Snmp_Oid_Probe_Data {
    tql::id_t node_id{};
    std::vector<std::uint32_t> oid{};

    static constexpr std::string_view record = "Snmp_Oid_Probe_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("node_id", self.node_id);
        visit("oid", self.oid);
    }
};

struct Snmp_Probe_Timeout_Data {
    std::uint32_t request_id = 0;

    static constexpr std::string_view record = "Snmp_Probe_Timeout_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("request_id", self.request_id); }
};

struct Snmp_Probe_Result_Data {
    tql::id_t node_id{};
    std::uint32_t status = 0;
    std::list<std::string> values{};
    std::string message{};

    static constexpr std::string_view record = "Snmp_Probe_Result_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("node_id", self.node_id);
        visit("status", self.status);
        visit("values", self.values);
        visit("message", self.message);
    }
};

}  // namespace snmp

namespace reporter {

struct Scheduled_Report_Generation_Data {
    tql::id_t report_id{};
    std::int64_t time = 0;

    static constexpr std::string_view record = "Scheduled_Report_Generation_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("report_id", self.report_id);
        visit("time", self.time);
    }
};

}  // namespace reporter

namespace scan {

struct Scan_Request_Data {
    tql::id_t scan_id{};
    std::string first_address{};
    std::string last_address{};
    std::set<std::uint32_t> ports{};

    static constexpr std::string_view record = "Scan_Request_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("scan_id", self.scan_id);
        visit("first_address", self.first_address);
        visit("last_address", self.last_address);
        visit("ports", self.ports);
    }
};

struct Scan_Result_Data {
    tql::id_t scan_id{};
    std::string address{};
    std::string host_name{};
    std::set<std::uint32_t> open_ports{};
    bool done = false;

    static constexpr std::string_view record = "Scan_Result_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("scan_id", self.scan_id);
        visit("address", self.address);
        visit("host_name", self.host_name);
        visit("open_ports", self.open_ports);
        visit("done", self.done);
    }
};

}  // namespace scan
