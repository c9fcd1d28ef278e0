// The enumerations of the class catalogue: ids, names and the texts of their values. The texts go
// to clients as they stand.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tql {

/// Ids of enumerations, stored with each value. Those in the second half have no list of texts.
namespace enumeration {
inline constexpr uint32_t AlertMethod = 0x10001;
inline constexpr uint32_t StateAction = 0x10002;
inline constexpr uint32_t RemcheckType = 0x10004;
inline constexpr uint32_t Status = 0x10005;
inline constexpr uint32_t ReportPeriod = 0x1000a;
inline constexpr uint32_t AlertStrategy = 0x1000c;
inline constexpr uint32_t DownNotify = 0x1000e;
inline constexpr uint32_t ForecastAlerttime = 0x1000f;
inline constexpr uint32_t ForecastEsterror = 0x10010;
inline constexpr uint32_t RecurrenceDay = 0x10011;
inline constexpr uint32_t AgnetCheckType = 0x10012;
inline constexpr uint32_t SnmpVersion = 0x10014;
inline constexpr uint32_t LogCheckSeparatorInclusion = 0x10018;
inline constexpr uint32_t Period = 0x10019;
inline constexpr uint32_t RuleType = 0x1001a;
inline constexpr uint32_t MinDelayScope = 0x1001b;
inline constexpr uint32_t YesNoDefault = 0x1001c;
inline constexpr uint32_t ReportType = 0x1001e;
inline constexpr uint32_t HttpVerion = 0x10020;

inline constexpr uint32_t SnmpType = 0x10008;
inline constexpr uint32_t ForecastModel = 0x1000b;
inline constexpr uint32_t ForecastSigClass = 0x1000d;
inline constexpr uint32_t FolderType = 0x10015;
inline constexpr uint32_t LogCheckStatus = 0x10016;
inline constexpr uint32_t LogCheckLogDecision = 0x10017;
inline constexpr uint32_t ScoreState = 0x1001f;
inline constexpr uint32_t NotifyJobType = 0x10021;
inline constexpr uint32_t ReportTextType = 0x10024;
inline constexpr uint32_t EsxiType = 0x10025;
inline constexpr uint32_t IncludeChecks = 0x10026;
}  // namespace enumeration

struct enumeration_value_t {
    uint32_t value;
    std::string_view text;
};

struct enumeration_t {
    uint32_t id;
    std::string_view name;
    std::span<const enumeration_value_t> values;  ///< in the order in which clients list them
    std::string_view other;                       ///< text of any other value; empty: its number
};

/// The enumerations with texts, ascending by id. They live for ever.
[[nodiscard]] std::span<const enumeration_t> enumerations() noexcept;
/// The enumeration of an id, of which the low 17 bits count; null for one without texts.
[[nodiscard]] const enumeration_t* find_enumeration(uint32_t id) noexcept;
[[nodiscard]] const enumeration_t* find_enumeration(std::string_view name) noexcept;

/// The text of a value; none for a value or an enumeration without texts.
[[nodiscard]] std::optional<std::string_view> find_enumeration_text(uint32_t id,
                                                                    uint32_t value) noexcept;
/// The text of a value, else the enumeration's text for any other value, else the number in
/// decimal.
[[nodiscard]] std::string enumeration_text(uint32_t id, uint32_t value);
/// The value of a text, ignoring case; none for an unknown one.
[[nodiscard]] std::optional<uint32_t> find_enumeration_value(uint32_t id,
                                                             std::string_view text) noexcept;

}  // namespace tql
