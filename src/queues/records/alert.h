// Records of the siblings that notify people. The server sends none of them; all siblings share one
// catalogue.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "tql/id.h"

namespace alert {

struct Forecast_Warning_Data {
    tql::id_t check_id{};
    std::int64_t expected_time = 0;
    std::string text{};

    static constexpr std::string_view record = "Forecast_Warning_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("check_id", self.check_id);
        visit("expected_time", self.expected_time);
        visit("text", self.text);
    }
};

struct Generic_Notify_Data {
    std::list<tql::id_t> receivers{};
    std::string subject{};
    std::string text{};

    static constexpr std::string_view record = "Generic_Notify_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("receivers", self.receivers);
        visit("subject", self.subject);
        visit("text", self.text);
    }
};

struct Notify_AlertGroup_Data {
    tql::id_t alert_group{};
    std::string subject{};
    std::string text{};

    static constexpr std::string_view record = "Notify_AlertGroup_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("alert_group", self.alert_group);
        visit("subject", self.subject);
        visit("text", self.text);
    }
};

struct Object_Status_Change_Data {
    tql::id_t object{};
    std::uint32_t old_status = 0;
    std::uint32_t new_status = 0;
    std::int64_t time = 0;

    static constexpr std::string_view record = "Object_Status_Change_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("object", self.object);
        visit("old_status", self.old_status);
        visit("new_status", self.new_status);
        visit("time", self.time);
    }
};

struct Pager_Page_Data {
    std::uint32_t serial = 0;
    std::string number{};
    std::string text{};

    static constexpr std::string_view record = "Pager_Page_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("serial", self.serial);
        visit("number", self.number);
        visit("text", self.text);
    }
};

struct Pager_Status_Data {
    std::uint32_t serial = 0;
    std::uint32_t status = 0;
    std::string message{};

    static constexpr std::string_view record = "Pager_Status_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("serial", self.serial);
        visit("status", self.status);
        visit("message", self.message);
    }
};

struct Mailer_Mail_Data {
    std::uint32_t serial = 0;
    std::list<std::string> receivers{};
    std::string subject{};
    std::string text{};
    std::string html{};

    static constexpr std::string_view record = "Mailer_Mail_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("serial", self.serial);
        visit("receivers", self.receivers);
        visit("subject", self.subject);
        visit("text", self.text);
        visit("html", self.html);
    }
};

struct Mailer_Status_Data {
    std::uint32_t serial = 0;
    std::uint32_t status = 0;
    std::string message{};

    static constexpr std::string_view record = "Mailer_Status_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("serial", self.serial);
        visit("status", self.status);
        visit("message", self.message);
    }
};

struct Push_Notification_Data {
    std::uint32_t serial = 0;
    std::string device{};
    std::string text{};
    std::uint32_t badge = 0;

    static constexpr std::string_view record = "Push_Notification_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("serial", self.serial);
        visit("device", self.device);
        visit("text", self.text);
        visit("badge", self.badge);
    }
};

struct Push_Status_Data {
    std::uint32_t serial = 0;
    std::uint32_t status = 0;
    std::string message{};

    static constexpr std::string_view record = "Push_Status_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("serial", self.serial);
        visit("status", self.status);
        visit("message", self.message);
    }
};

}  // namespace alert
