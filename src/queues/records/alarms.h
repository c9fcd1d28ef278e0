// Records between the server and the sibling that works out states: immediate states out, status
// back.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "tql/id.h"
#include "tql/version.h"

namespace alarms {

struct id_state_t {
    tql::id_t id{};
    std::uint32_t state = 0;

    static constexpr std::string_view record = "id_state_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("state", self.state);
    }
};

struct Immediate_State_Data {
    tql::id_t id{};
    std::uint32_t state = 0;

    static constexpr std::string_view record = "Immediate_State_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("state", self.state);
    }
};

struct Immediate_States_Data {
    std::list<id_state_t> states{};

    static constexpr std::string_view record = "Immediate_States_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("states", self.states); }
};

struct Checkin_Data {
    tql::id_t id{};
    std::int64_t checkin_time = 0;

    static constexpr std::string_view record = "Checkin_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("checkin_time", self.checkin_time);
    }
};

struct Acknowledge_Alert_Data {
    tql::id_t user{};
    std::string comment{};
    tql::id_t object{};

    static constexpr std::string_view record = "Acknowledge_Alert_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("user", self.user);
        visit("comment", self.comment);
        visit("object", self.object);
    }
};

struct Reset_Score_Data {
    tql::id_t user{};
    std::string comment{};
    tql::id_t object{};
    bool recursive = false;

    static constexpr std::string_view record = "Reset_Score_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("user", self.user);
        visit("comment", self.comment);
        visit("object", self.object);
        visit("recursive", self.recursive);
    }
};

/// The times are seconds since the epoch, 0 for never.
struct Set_Status_Data {
    tql::id_t id{};
    std::uint32_t status = 0;
    std::int64_t entered_warn = 0;
    std::int64_t entered_remedy = 0;
    std::int64_t entered_alert = 0;

    static constexpr std::string_view record = "Set_Status_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("status", self.status);
        visit("entered_warn", self.entered_warn);
        visit("entered_remedy", self.entered_remedy);
        visit("entered_alert", self.entered_alert);
    }
};

struct Alarm_Notify_Data {
    tql::id_t id{};
    tql::version_t seq{};

    static constexpr std::string_view record = "Alarm_Notify_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("seq", self.seq);
    }
};

}  // namespace alarms
