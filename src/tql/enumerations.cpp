#include "tql/enumerations.h"

#include <algorithm>
#include <fmt/format.h>

namespace tql {

namespace {

// Enumerations carry marks above these bits; they don't tell enumerations apart.
constexpr uint32_t kEnumerationMask = 0x1ffff;

constexpr enumeration_value_t kAlertMethod[] = {
    {0, "HTML e-mail"},
    {1, "SMS via. e-mail gateway"},
    {2, "Num. Pager"},
    {3, "Direct SMS"},
    {4, "Plaintext e-mail"},
    {5, "Custom"},
    {6, "Apple PUSH notifications"},
    {7, "Android PUSH notifications"},
};

constexpr enumeration_value_t kStateAction[] = {
    {0, "Good"},
    {1, "Warn"},
    {2, "Alert"},
};

constexpr enumeration_value_t kRemcheckType[] = {
    {1, "HTTP"},        {2, "ICMP"}, {3, "DNS"},      {4, "SMTP"}, {5, "POP3"},
    {6, "Generic TCP"}, {7, "FTP"},  {8, "IMAP"},     {9, "NTP"},  {10, "NNTP"},
    {11, "NFS"},        {12, "NIS"}, {13, "PORTMAP"}, {14, "RPC"}, {15, "Custom"},
};

constexpr enumeration_value_t kStatus[] = {
    {0, "N/A"},
    {1, "Good"},
    {2, "(Good)down"},
    {3, "(Good)depend"},
    {4, "(Unknown)down"},
    {5, "(Unknown)depend"},
    {6, "(Warning)down"},
    {7, "(Warning)depend"},
    {8, "(Alert)down"},
    {9, "(Alert)depend"},
    {10, "Uninitialized"},
    {11, "Unknown"},
    {12, "Warning"},
    {13, "Alert"},
};

constexpr enumeration_value_t kReportPeriod[] = {
    {1, "Yesterday"}, {2, "Last week"}, {3, "Last month"},    {6, "Last quarter"},
    {4, "Last year"}, {5, "All time"},  {7, "Last 12 Hours"},
};

constexpr enumeration_value_t kAlertStrategy[] = {
    {0, "Immediate"},
    {1, "ScoreKeeper"},
};

constexpr enumeration_value_t kDownNotify[] = {
    {0, "None"},
    {1, "People receiving warnings"},
    {2, "People receiving alerts"},
};

constexpr enumeration_value_t kForecastAlerttime[] = {
    {0, "1 hour"}, {1, "2 hour"}, {2, "6 hour"}, {3, "12 hour"}, {4, "1 day"}, {5, "2 day"},
};

constexpr enumeration_value_t kForecastEsterror[] = {
    {0, "5%"}, {1, "10%"}, {2, "15%"}, {3, "20%"}, {4, "25%"},
};

constexpr enumeration_value_t kRecurrenceDay[] = {
    {0, "Never"},
    {1, "Day"},
    {2, "Week day"},
    {3, "Month day"},
    {4, "Last day of month"},
    {5, "Last day of quarter"},
};

constexpr enumeration_value_t kAgnetCheckType[] = {
    {0, "Integer Continuous Check"},
    {1, "Process Presence Check"},
    {2, "Raid Check"},
    {3, "Boolean Check"},
    {4, "Uptime Check"},
    {5, "SMART Status Check"},
    {6, "Log Check"},
    {7, "Floating Point Continuous Check"},
    {8, "Agent Action"},
    {9, "Advanced Log Check"},
    {10, "SAF-TE Slot"},
    {11, "SAF-TE Fan Check"},
    {12, "SAF-TE Power Supply Check"},
};

constexpr enumeration_value_t kSnmpVersion[] = {
    {0, "Autodetect"},
    {1, "SNMPv1"},
    {2, "SNMPv2"},
};

constexpr enumeration_value_t kLogCheckSeparatorInclusion[] = {
    {0, "Append to previous entry"},
    {1, "Prepend to next entry"},
    {2, "Discard the separator"},
};

constexpr enumeration_value_t kPeriod[] = {
    {0, "1 year"}, {1, "6 months"}, {2, "3 months"}, {3, "1 month"},
    {4, "1 week"}, {5, "1 day"},    {7, "1 hour"},
};

constexpr enumeration_value_t kRuleType[] = {
    {0, "FTP Greeting"},    {1, "SMTP Greeting"},      {2, "POP3 Greeting"},
    {11, "POP3S Greeting"}, {3, "HTTP reply header"},  {10, "HTTPS reply header"},
    {4, "SNMP OID Prefix"}, {5, "Is Pingable (ICMP)"}, {6, "Has a DNS service"},
    {7, "IMAP greeting"},   {12, "IMAPS greeting"},    {8, "Can connect to port"},
    {9, "Node info match"},
};

constexpr enumeration_value_t kMinDelayScope[] = {
    {0, "Per node"},
    {1, "Per check"},
};

constexpr enumeration_value_t kYesNoDefault[] = {
    {1, "No"},
    {0, "Yes"},
    {2, "Default"},
};

constexpr enumeration_value_t kReportType[] = {
    {1, "System availability"},
    {2, "Incidents"},
    {3, "Response time"},
    {5, "Current configuration"},
};

constexpr enumeration_value_t kHttpVerion[] = {
    {0, "1.0"},
    {1, "1.1"},
};

constexpr enumeration_t kEnumerations[] = {
    {enumeration::AlertMethod, "AlertMethod", kAlertMethod, "(Unknown method)"},
    {enumeration::StateAction, "StateAction", kStateAction, ""},
    {enumeration::RemcheckType, "RemcheckType", kRemcheckType, ""},
    {enumeration::Status, "Status", kStatus, ""},
    {enumeration::ReportPeriod, "ReportPeriod", kReportPeriod, ""},
    {enumeration::AlertStrategy, "AlertStrategy", kAlertStrategy, ""},
    {enumeration::DownNotify, "DownNotify", kDownNotify, ""},
    {enumeration::ForecastAlerttime, "ForecastAlerttime", kForecastAlerttime, ""},
    {enumeration::ForecastEsterror, "ForecastEsterror", kForecastEsterror, ""},
    {enumeration::RecurrenceDay, "RecurrenceDay", kRecurrenceDay, ""},
    {enumeration::AgnetCheckType, "AgnetCheckType", kAgnetCheckType, ""},
    {enumeration::SnmpVersion, "SnmpVersion", kSnmpVersion, ""},
    {enumeration::LogCheckSeparatorInclusion, "LogCheckSeparatorInclusion",
     kLogCheckSeparatorInclusion, ""},
    {enumeration::Period, "Period", kPeriod, ""},
    {enumeration::RuleType, "RuleType", kRuleType, ""},
    {enumeration::MinDelayScope, "MinDelayScope", kMinDelayScope, ""},
    {enumeration::YesNoDefault, "YesNoDefault", kYesNoDefault, ""},
    {enumeration::ReportType, "ReportType", kReportType, ""},
    {enumeration::HttpVerion, "HttpVerion", kHttpVerion, ""},
};

static_assert(std::ranges::is_sorted(kEnumerations, std::ranges::less_equal(), &enumeration_t::id));

char lower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool equal_but_for_case(std::string_view a, std::string_view b) noexcept {
    return std::ranges::equal(a, b, {}, lower, lower);
}

}  // namespace

std::span<const enumeration_t> enumerations() noexcept {
    return kEnumerations;
}

const enumeration_t* find_enumeration(uint32_t id) noexcept {
    const auto at = std::ranges::find(kEnumerations, id & kEnumerationMask, &enumeration_t::id);
    return at == std::end(kEnumerations) ? nullptr : &*at;
}

const enumeration_t* find_enumeration(std::string_view name) noexcept {
    const auto at = std::ranges::find(kEnumerations, name, &enumeration_t::name);
    return at == std::end(kEnumerations) ? nullptr : &*at;
}

std::optional<std::string_view> find_enumeration_text(uint32_t id, uint32_t value) noexcept {
    const enumeration_t* enumeration = find_enumeration(id);
    if (!enumeration) return std::nullopt;
    const auto at = std::ranges::find(enumeration->values, value, &enumeration_value_t::value);
    if (at == enumeration->values.end()) return std::nullopt;
    return at->text;
}

std::string enumeration_text(uint32_t id, uint32_t value) {
    if (const auto text = find_enumeration_text(id, value)) return std::string(*text);
    const enumeration_t* enumeration = find_enumeration(id);
    return enumeration && !enumeration->other.empty() ? std::string(enumeration->other)
                                                      : fmt::format("{}", value);
}

std::optional<uint32_t> find_enumeration_value(uint32_t id, std::string_view text) noexcept {
    const enumeration_t* enumeration = find_enumeration(id);
    if (!enumeration) return std::nullopt;
    for (const enumeration_value_t& value : enumeration->values)
        if (equal_but_for_case(value.text, text)) return value.value;
    return std::nullopt;
}

}  // namespace tql
