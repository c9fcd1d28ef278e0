// The properties that checks have in common, each set written once. A class takes a set up by
// naming it in its table's `shared`; a row of its own with the same number takes precedence.
#pragma once

#include "dbcache/class_table.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/special_kinds.h"
#include "tql/enumerations.h"
#include "tql/names.h"

namespace dbcache::check_rows {

/// Origin type of all that has to do with checks.
inline constexpr uint32_t kCheckOrigin = 3;

inline constexpr uint32_t kNodeClassCheck[] = {cls::NodeClassCheckConfig};
inline constexpr uint32_t kAlertGroup[] = {cls::AlertGroup};
inline constexpr uint32_t kAnyCheck[] = {cls::Check, cls::NodeClassCheckConfig};
inline constexpr uint32_t kDependable[] = {cls::Domain, cls::Node, cls::Check,
                                           cls::CheckAccumulation};
/// Stand for "as the node says" and "nobody" where an alert group is named.
inline constexpr NodeId kFixedAlertGroups[] = {{0, 2}, {0, 3}};

// clang-format off
/// The marks of an object that only lies on the way to marked ones.
inline constexpr PropertyRow kMarksOnTheWay[] = {
    {.number = prop::activeMark, .kind = kind_t::mark, .flags = X | R},
    {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R},
};
inline constexpr PropertyRow kActiveMark = {.number = prop::activeMark, .kind = kind_t::mark, .flags = X | R, .member = marks_active};
inline constexpr PropertyRow kInheritsMark = {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R, .member = marks_inheriting};
inline constexpr PropertyRow kComment = {.number = prop::comment, .kind = kind_t::marl, .flags = N, .high = 4000};

/// Every check.
inline constexpr PropertyRow kCommon[] = {
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kNodeClassCheck},
    kInheritsMark,
    kActiveMark,
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    kComment,
    {.number = prop::alertGroup, .kind = kind_t::object, .flags = N, .initial = NodeId{0, 2}, .fallback_null = true, .classes = kAlertGroup, .exempt = kFixedAlertGroups},
    {.number = prop::alertStrategy, .kind = kind_t::enumeration, .initial = 1, .enumeration = tql::enumeration::AlertStrategy},
    {.number = prop::acknowledgeAlerts, .kind = kind_t::boolean},
    {.number = prop::lastAcknowledge, .kind = kind_t::date, .flags = N | X, .initial = 0},
    {.number = prop::resetScore, .kind = kind_t::action, .flags = X},
    {.number = prop::dependsOn, .kind = kind_t::object_set, .classes = kDependable},
    {.number = prop::goodScore, .kind = kind_t::i32, .initial = -5, .high = 0},
    {.number = prop::warnScore, .kind = kind_t::i32, .initial = 6, .low = 0},
    {.number = prop::alertScore, .kind = kind_t::i32, .initial = 20, .low = 0},
    {.number = prop::remedyId, .kind = kind_t::object, .flags = N, .classes = kAnyCheck},
    {.number = prop::tsdbIndex, .kind = kind_t::series, .flags = X | R},
};

/// Checks of which a forecast can be made.
inline constexpr PropertyRow kForecast[] = {
    {.number = prop::tsdbForecast, .kind = kind_t::series, .flags = X | R},
    {.number = prop::forecastEnabled, .kind = kind_t::boolean},
    {.number = prop::warnOnForecast, .kind = kind_t::boolean},
    {.number = prop::forecastAlertTime, .kind = kind_t::enumeration, .initial = 0, .enumeration = tql::enumeration::ForecastAlerttime},
    {.number = prop::forecastAlertEstError, .kind = kind_t::enumeration, .initial = 0, .enumeration = tql::enumeration::ForecastEsterror},
};

/// How often a check is made, in seconds.
inline constexpr PropertyRow kFrequency = {.number = prop::frequency, .kind = kind_t::u32, .initial = 30, .low = 1, .high = 86400};
inline constexpr PropertyRow kStationLocale = {.number = prop::stationLocale, .kind = kind_t::gid, .flags = N};
inline constexpr PropertyRow kLabel = {.number = prop::label, .kind = kind_t::string};
inline constexpr PropertyRow kActive = {.number = prop::active, .kind = kind_t::boolean};

/// How the client shows a value.
inline constexpr PropertyRow kPreferred[] = {
    {.number = prop::preferredUnit, .kind = kind_t::unit, .flags = N},
    {.number = prop::preferredBinary, .kind = kind_t::boolean, .flags = N},
};
inline constexpr PropertyRow kRealPlot[] = {
    {.number = prop::plotMin, .kind = kind_t::real, .flags = N},
    {.number = prop::plotMax, .kind = kind_t::real, .flags = N},
};
inline constexpr PropertyRow kIntPlot[] = {
    {.number = prop::plotMin, .kind = kind_t::real_int, .flags = N},
    {.number = prop::plotMax, .kind = kind_t::real_int, .flags = N},
};

/// Thresholds on both sides.
inline constexpr PropertyRow kRealThresholds[] = {
    {.number = prop::alertIfAbove, .kind = kind_t::real, .flags = N},
    {.number = prop::warnIfAbove, .kind = kind_t::real, .flags = N},
    {.number = prop::warnIfBelow, .kind = kind_t::real, .flags = N},
    {.number = prop::alertIfBelow, .kind = kind_t::real, .flags = N},
};
/// Thresholds below which it is too soon after a start.
inline constexpr PropertyRow kRealBelow[] = {
    {.number = prop::warnIfBelow, .kind = kind_t::real, .flags = N},
    {.number = prop::alertIfBelow, .kind = kind_t::real, .flags = N},
};
// clang-format on

// ---- rules that tie thresholds together --------------------------------------------------------

inline constexpr GreaterRow plot_rule(uint32_t subtype) {
    return {prop::plotMax, prop::plotMin, subtype, "Plot max must be greater than min value"};
}
inline constexpr GreaterRow above_rule(uint32_t subtype) {
    return {prop::alertIfAbove, prop::warnIfAbove, subtype,
            "'Alert if above' must be greater than 'Warn if above'."};
}
inline constexpr GreaterRow below_rule(uint32_t subtype) {
    return {prop::warnIfBelow, prop::alertIfBelow, subtype,
            "'Warn if below' must be greater than 'Alert if below'."};
}
/// The six rules between four thresholds.
inline constexpr std::array<GreaterRow, 6> threshold_rules(uint32_t subtype) {
    return {{above_rule(subtype),
             {prop::alertIfAbove, prop::warnIfBelow, subtype,
              "'Alert if above' must be greater than 'Warn if below'."},
             {prop::alertIfAbove, prop::alertIfBelow, subtype,
              "'Alert if above' must be greater than 'Alert if below'."},
             {prop::warnIfAbove, prop::warnIfBelow, subtype,
              "'Warn if above' must be greater than 'Warn if below'."},
             {prop::warnIfAbove, prop::alertIfBelow, subtype,
              "'Warn if above' must be greater than 'Alert if below'."},
             below_rule(subtype)}};
}

}  // namespace dbcache::check_rows
