// Records of check results, check-in, node state and the other reports that reach the server from
// the siblings that carry checks out.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "queues/event_types.h"
#include "tql/id.h"
#include "util/time.h"

namespace services {

/// Result of one net check; `replytime` in milliseconds.
struct remcheck_stat {
    std::int64_t ctime = 0;
    tql::id_t check_id{};
    std::int32_t result = 0;
    std::int32_t replytime = 0;
    std::uint32_t attempts = 0;
    std::list<std::string> result_strings{};

    static constexpr std::string_view record = "remcheck_stat";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("ctime", self.ctime);
        visit("check_id", self.check_id);
        visit("result", self.result);
        visit("replytime", self.replytime);
        visit("attempts", self.attempts);
        visit("result_strings", self.result_strings);
    }
};

}  // namespace services

namespace dbms {

struct snmp_continuous_stat {
    std::int64_t start = 0;
    std::int64_t end = 0;
    double result = 0;
    std::int32_t status = 0;

    static constexpr std::string_view record = "snmp_continuous_stat";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("start", self.start);
        visit("end", self.end);
        visit("result", self.result);
        visit("status", self.status);
    }
};

struct snmp_enum_stat {
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::uint32_t mask = 0;
    std::int32_t status = 0;

    static constexpr std::string_view record = "snmp_enum_stat";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("start", self.start);
        visit("end", self.end);
        visit("mask", self.mask);
        visit("status", self.status);
    }
};

struct snmp_uptime_stat {
    std::int64_t start = 0;
    std::int64_t end = 0;
    double result = 0;
    std::int32_t status = 0;

    static constexpr std::string_view record = "snmp_uptime_stat";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("start", self.start);
        visit("end", self.end);
        visit("result", self.result);
        visit("status", self.status);
    }
};

struct esxi_stat {
    double value = 0;
    std::int64_t ctime = 0;
    tql::id_t check_id{};
    std::uint32_t network_status = 0;
    std::int32_t status = 0;
    std::uint32_t is_enum = 0;

    static constexpr std::string_view record = "esxi_stat";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("value", self.value);
        visit("ctime", self.ctime);
        visit("check_id", self.check_id);
        visit("network_status", self.network_status);
        visit("status", self.status);
        visit("is_enum", self.is_enum);
    }
};

/// Latest result of an agent check.
struct agentcheck_stat {
    std::int64_t ctime = 0;
    std::uint32_t status = 0;
    std::string comment{};
    bool has_valid_value = false;
    float value = 0;

    static constexpr std::string_view record = "agentcheck_stat";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("ctime", self.ctime);
        visit("status", self.status);
        visit("comment", self.comment);
        visit("has_valid_value", self.has_valid_value);
        visit("value", self.value);
    }
};

struct net_check_t {
    std::string name{};
    std::string command{};
    std::string result_pattern{};

    static constexpr std::string_view record = "net_check_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("name", self.name);
        visit("command", self.command);
        visit("result_pattern", self.result_pattern);
    }
};

struct Data_RemCheck_Data {
    tql::id_t check_id{};
    services::remcheck_stat stat{};

    static constexpr std::string_view record = "Data_RemCheck_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("check_id", self.check_id);
        visit("stat", self.stat);
    }
};

struct Data_SnmpCheck_Continuous_Data {
    tql::id_t check_id{};
    snmp_continuous_stat stat{};

    static constexpr std::string_view record = "Data_SnmpCheck_Continuous_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("check_id", self.check_id);
        visit("stat", self.stat);
    }
};

struct Data_SnmpCheck_Enum_Data {
    tql::id_t check_id{};
    snmp_enum_stat stat{};

    static constexpr std::string_view record = "Data_SnmpCheck_Enum_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("check_id", self.check_id);
        visit("stat", self.stat);
    }
};

struct Data_SnmpCheck_Uptime_Data {
    tql::id_t check_id{};
    snmp_uptime_stat stat{};

    static constexpr std::string_view record = "Data_SnmpCheck_Uptime_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("check_id", self.check_id);
        visit("stat", self.stat);
    }
};

struct Data_EsxiCheck_Data {
    tql::id_t check_id{};
    esxi_stat stat{};

    static constexpr std::string_view record = "Data_EsxiCheck_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("check_id", self.check_id);
        visit("stat", self.stat);
    }
};

struct Data_DomainExport_State_Data {
    tql::id_t id{};
    std::uint32_t state = 0;

    static constexpr std::string_view record = "Data_DomainExport_State_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("state", self.state);
    }
};

struct Put_Check_State_Data {
    tql::id_t check_id{};
    std::uint32_t new_state = 0;

    static constexpr std::string_view record = "Put_Check_State_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("check_id", self.check_id);
        visit("new_state", self.new_state);
    }
};

struct Put_IncidentLog_Data {
    std::uint32_t time = 0;
    tql::id_t host_id{};
    std::string text{};
    std::uint32_t level = 0;

    static constexpr std::string_view record = "Put_IncidentLog_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("time", self.time);
        visit("host_id", self.host_id);
        visit("text", self.text);
        visit("level", self.level);
    }
};

struct Return_Host_Configured_State_Data {
    bool configured = false;
    bool rescan = false;

    static constexpr std::string_view record = "Return_Host_Configured_State_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("configured", self.configured);
        visit("rescan", self.rescan);
    }
};

/// `new_id` is filled on arrival; the sender leaves it empty.
struct Set_Host_Reconfigured_Data {
    tql::id_t hostid{};
    bool configure = false;
    tql::id_t new_id{};

    static constexpr std::string_view record = "Set_Host_Reconfigured_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("hostid", self.hostid);
        visit("configure", self.configure);
        visit("new_id", self.new_id);
    }
};

/// `new_id` is filled on arrival; the sender leaves it empty.
struct Set_Host_Rescan_Data {
    tql::id_t hostid{};
    bool rescan = false;
    tql::id_t new_id{};

    static constexpr std::string_view record = "Set_Host_Rescan_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("hostid", self.hostid);
        visit("rescan", self.rescan);
        visit("new_id", self.new_id);
    }
};

struct Checkin_Start_Data {
    tql::id_t node_id{};

    static constexpr std::string_view record = "Checkin_Start_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("node_id", self.node_id); }
};

struct Checkin_Complete_Data {
    tql::id_t node_id{};
    std::int64_t checkin_time = 0;

    static constexpr std::string_view record = "Checkin_Complete_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("node_id", self.node_id);
        visit("checkin_time", self.checkin_time);
    }
};

struct Checkin_Abort_Data {
    tql::id_t node_id{};

    static constexpr std::string_view record = "Checkin_Abort_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("node_id", self.node_id); }
};

/// Results by check.
struct Data_AgentCheck_Data {
    std::map<tql::id_t, agentcheck_stat> data{};

    static constexpr std::string_view record = "Data_AgentCheck_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("data", self.data); }
};

struct Return_Data_AgentCheck_Data {
    std::uint64_t good = 0;
    std::uint64_t fail = 0;
    bool should_reconfigure = false;

    static constexpr std::string_view record = "Return_Data_AgentCheck_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("good", self.good);
        visit("fail", self.fail);
        visit("should_reconfigure", self.should_reconfigure);
    }
};

/// The new ids are filled on arrival.
struct Host_Rebooted_Data {
    tql::id_t host{};
    tql::id_t uptime_check{};
    tql::id_t new_id1{};
    tql::id_t new_id2{};

    static constexpr std::string_view record = "Host_Rebooted_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("host", self.host);
        visit("uptime_check", self.uptime_check);
        visit("new_id1", self.new_id1);
        visit("new_id2", self.new_id2);
    }
};

struct Execute_Remedy_Data {
    tql::id_t host{};
    tql::id_t remedy{};

    static constexpr std::string_view record = "Execute_Remedy_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("host", self.host);
        visit("remedy", self.remedy);
    }
};

struct Late_Checkin_Data {
    tql::id_t node{};

    static constexpr std::string_view record = "Late_Checkin_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("node", self.node); }
};

struct Audit_Event_Data {
    tql::id_t user{};
    std::string comment{};
    std::list<tql::id_t> objects{};
    Time time{};
    std::uint32_t operation = 0;
    std::uint32_t result = 0;

    static constexpr std::string_view record = "Audit_Event_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("user", self.user);
        visit("comment", self.comment);
        visit("objects", self.objects);
        visit("time", self.time);
        visit("operation", self.operation);
        visit("result", self.result);
    }
};

struct Update_NetChecks_Data {
    std::list<net_check_t> checks{};

    static constexpr std::string_view record = "Update_NetChecks_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("checks", self.checks); }
};

struct Return_NetCheck_Info_Data {
    std::string command{};
    std::string result_pattern{};

    static constexpr std::string_view record = "Return_NetCheck_Info_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("command", self.command);
        visit("result_pattern", self.result_pattern);
    }
};

struct Add_Candidate_Node_Data {
    std::string node_name{};
    tql::id_t domain_id{};
    std::string remaining_domain_name{};

    static constexpr std::string_view record = "Add_Candidate_Node_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("node_name", self.node_name);
        visit("domain_id", self.domain_id);
        visit("remaining_domain_name", self.remaining_domain_name);
    }
};

}  // namespace dbms
