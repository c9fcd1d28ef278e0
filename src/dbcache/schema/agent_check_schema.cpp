#include "dbcache/schema/agent_check_schema.h"

#include <array>

#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/schema/agent_config.h"
#include "dbcache/schema/check_rows.h"
#include "dbcache/schema/check_templates.h"
#include "dbcache/schema/name_format.h"
#include "dbcache/time_series.h"
#include "error/exception.h"
#include "mdb/property_types.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

using namespace check_rows;

/// Values of checkType that more is said about than the subtype.
constexpr uint32_t kLogCheck = 6;
constexpr uint32_t kAgentAction = 8;
constexpr uint32_t kAdvancedLog = 9;
constexpr uint32_t kHighestType = 15;

constexpr uint32_t kMeasured[] = {0, 1};
constexpr uint32_t kStateOnly[] = {2};
constexpr uint32_t kActionOnly[] = {3};
constexpr uint32_t kLogs[] = {4, 7};
constexpr uint32_t kAllLogs[] = {4, 5, 7};
constexpr uint32_t kForwardOnly[] = {5};
constexpr uint32_t kUptimeOnly[] = {6};
constexpr uint32_t kWithFrequency[] = {0, 1, 2, 4, 6, 7};
constexpr uint32_t kWithUnit[] = {0, 1, 6};
constexpr uint32_t kAcknowledged[] = {0, 1, 2, 3, 6};
constexpr uint32_t kChecksOnly[] = {cls::Check};

// ---- states ------------------------------------------------------------------------------------

constexpr std::string_view kProcessStates[] = {"Not present", "Present"};
constexpr std::string_view kRaidStates[] = {"Array ok", "", "Running degraded", "Failed"};
constexpr std::string_view kBooleanStates[] = {"Check false", "Check true"};
constexpr std::string_view kSmartStates[] = {"Drive ok", "Prefailure", "Failure"};
constexpr std::string_view kSlotStates[] = {"No error", "Rebuilding",  "Predicted fault", "Failed",
                                            "Inactive", "Not present", "Not in RAID",     "Other"};
constexpr std::string_view kFanStates[] = {"Operational", "Malfunctioning", "Not present"};
constexpr std::string_view kPowerStates[] = {"Operational and on",
                                             "Operational and off",
                                             "Malfunctioning, should be on",
                                             "Malfunctioning, should be off",
                                             "Present, failures not detectable",
                                             "Not present"};
constexpr std::string_view kDeviceStates[] = {"Logical device OK",
                                              "Logical device failing",
                                              "Logical device not configured",
                                              "Logical device in interim recovery",
                                              "Logical device ready for recovery",
                                              "Logical device recovering",
                                              "Wrong physical device replaced",
                                              "Improperly connected physical device",
                                              "Hardware is overheating",
                                              "Hardware has overheated",
                                              "Logical device is expanding",
                                              "Logical device not available",
                                              "Logical device queued for expansion"};
constexpr std::string_view kVolumeStates[] = {
    "Logical device OK",     "Logical device degraded",  "Logical device rebuilding",
    "Logical device failed", "Logical device off line",  "Logical device transforming",
    "Queued for rebuild",    "Queued for transformation"};
constexpr std::string_view kPoolStates[] = {"Offline",  "Removed", "Faulted", "Unavail",
                                            "Degraded", "Online",  "Unknown"};

/// The states of a check are those of its kind.
class AgentStates final : public StateEnumeration {
  public:
    [[nodiscard]] bool exists(const PropertyChain& chain, uint32_t state) const override {
        const auto labels = agent_state_labels(own_enum(chain, prop::checkType).value_or(0));
        return state < labels.size() && !labels[state].empty();
    }
};
constinit const AgentStates kAgentStates;

// ---- tables ------------------------------------------------------------------------------------

// clang-format off
constexpr PropertyRow kAgentCheckRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = X},
    {.number = prop::agentId, .kind = kind_t::string, .flags = K | X},
    kLabel,
    {.number = prop::checkType, .kind = kind_t::enumeration, .flags = X, .high = kHighestType, .enumeration = tql::enumeration::AgnetCheckType, .determines_subtype = true},
    kActive,
    {.number = prop::alertStrategy, .kind = kind_t::enumeration, .initial = 0, .enumeration = tql::enumeration::AlertStrategy},
    // A log check reports each alert by itself; silenceWarn and silenceAlert stand in its place.
    {.number = prop::acknowledgeAlerts, .kind = kind_t::boolean, .subtypes = kAcknowledged},
    {.number = prop::descriptionGood, .kind = kind_t::string, .flags = X},
    {.number = prop::descriptionWarn, .kind = kind_t::string, .flags = X},
    {.number = prop::descriptionAlert, .kind = kind_t::string, .flags = X},

    {.number = prop::frequency, .kind = kind_t::u32, .initial = 30, .low = 1, .high = 86400, .subtypes = kWithFrequency},
    {.number = prop::unit, .kind = kind_t::unit_from_text, .flags = X, .subtypes = kWithUnit},
    {.number = prop::warnIfAbove, .kind = kind_t::real_int, .flags = N, .subtypes = kWithUnit},
    {.number = prop::alertIfAbove, .kind = kind_t::real_int, .flags = N, .subtypes = kWithUnit},
    {.number = prop::warnIfBelow, .kind = kind_t::real_int, .flags = N, .subtypes = kWithUnit},
    {.number = prop::alertIfBelow, .kind = kind_t::real_int, .flags = N, .subtypes = kWithUnit},
    {.number = prop::warnIfAbovePct, .kind = kind_t::real, .flags = N, .subtypes = kMeasured},
    {.number = prop::alertIfAbovePct, .kind = kind_t::real, .flags = N, .subtypes = kMeasured},
    {.number = prop::warnIfBelowPct, .kind = kind_t::real, .flags = N, .subtypes = kMeasured},
    {.number = prop::alertIfBelowPct, .kind = kind_t::real, .flags = N, .subtypes = kMeasured},
    {.number = prop::rangeMin, .kind = kind_t::real, .flags = N | X, .subtypes = kMeasured},
    {.number = prop::rangeMax, .kind = kind_t::real, .flags = N | X, .subtypes = kMeasured},

    {.number = prop::stateAction0, .kind = kind_t::state_action, .initial = 0, .states = &kAgentStates, .subtypes = kStateOnly},
    {.number = prop::fire, .kind = kind_t::boolean, .flags = X, .subtypes = kActionOnly},
    {.number = prop::executeAction, .kind = kind_t::action, .flags = X, .subtypes = kActionOnly},

    {.number = prop::separatorRegex, .kind = kind_t::regex, .initial = "\r?\n", .subtypes = kLogs},
    {.number = prop::separatorInclusion, .kind = kind_t::enumeration, .initial = 2, .enumeration = tql::enumeration::LogCheckSeparatorInclusion, .subtypes = kLogs},
    {.number = prop::silenceWarn, .kind = kind_t::u32, .flags = N, .subtypes = kAllLogs},
    {.number = prop::silenceAlert, .kind = kind_t::u32, .flags = N, .subtypes = kAllLogs},
    {.number = prop::parasiteOn, .kind = kind_t::object, .flags = N, .classes = kChecksOnly, .subtypes = kForwardOnly},
    {.number = prop::parasitePattern, .kind = kind_t::pattern, .initial = "'.*'", .subtypes = kForwardOnly},

    {.number = prop::automaticDowntime, .kind = kind_t::u32, .flags = N, .subtypes = kUptimeOnly},
    {.number = prop::automaticResetScores, .kind = kind_t::boolean, .subtypes = kUptimeOnly},
};
// clang-format on

constexpr SharedRows kAgentCheckShared[] = {
    {kCommon}, {kForecast, kMeasured}, {kPreferred, kMeasured}, {kIntPlot, kMeasured}};

constexpr ChildRow kAgentCheckChildren[] = {
    {cls::Plan, nodetype::Plan},
    {cls::LogCheckRuleComment, nodetype::LogCheckRuleComment},
    {cls::LogCheckRule, nodetype::LogCheckRule},
    {cls::CheckAccumulation, nodetype::CheckAccumulation},
    {cls::AlertPathUsage, nodetype::AlertPathUsage},
    {cls::ForecastLock, nodetype::ForecastLock},
    {cls::ForecastModel, nodetype::ForecastModel},
    {cls::ActionConnection, nodetype::ActionConnection},
    {cls::EnumCheckTagRule, nodetype::EnumCheckTagRule},
};

constexpr GreaterRow kAgentCheckRules[] = {plot_rule(AgentCheckSchema::kInteger),
                                           plot_rule(AgentCheckSchema::kFloating)};

constexpr PropertyRow kAgentCheckGroupRows[] = {
    {.number = prop::agentId, .kind = kind_t::string, .flags = K},
    {.number = prop::name, .kind = kind_t::string},
    {.number = prop::checkNameFormat, .kind = kind_t::string, .flags = N},
    {.number = prop::isArray, .kind = kind_t::boolean},
    {.number = prop::countAgentChecks, .kind = kind_t::count, .flags = R},
};

constexpr SharedRows kGroupShared[] = {{kMarksOnTheWay}};

constexpr ChildRow kAgentCheckGroupChildren[] = {
    {cls::Check, nodetype::AgentCheck},
    {cls::CheckGroup, nodetype::AgentCheckGroup},
    {cls::MultiCheck, nodetype::AgentMultiCheck},
    {cls::Tag, nodetype::Tag},
};

// ---- place -------------------------------------------------------------------------------------

/// Calls `visit` with the record of the parent of the object with the record `chain`.
bool visit_parent(const PropertyChain& chain, const PropertyChain::Visit& visit) {
    return chain.visit_object(own_object(chain, prop::parentId), visit);
}

bool is_group_called(const PropertyChain& group, std::string_view agent_id) {
    PropertyNodeType type(prop::nodeType);
    return group.read(0, type) == found_t::value &&
           static_cast<uint32_t>(type.value) == nodetype::AgentCheckGroup &&
           own_text(group, prop::agentId) == agent_id;
}

bool stands_under_node(const PropertyChain& group) {
    bool under_node = false;
    visit_parent(group, [&](const PropertyChain& parent) {
        PropertyNodeType type(prop::nodeType);
        under_node = parent.read(0, type) == found_t::value &&
                     static_cast<uint32_t>(type.value) == nodetype::Node;
    });
    return under_node;
}

/// The subtype of an advanced log check in the group `parent`; `chain` opens what is looked at.
uint32_t log_subtype(const PropertyChain& chain, const NodeId& parent) {
    if (is_real_log_group(chain, parent, "/forward")) return AgentCheckSchema::kForwardLog;
    if (is_real_log_group(chain, parent, "/systemd")) return AgentCheckSchema::kSystemdLog;
    return AgentCheckSchema::kLog;
}

/// The subtype of a check of any other kind.
uint32_t plain_subtype(uint32_t type) {
    error::check(type <= kHighestType, "AgentCheckSchema::getSubtype invariant");
    switch (type) {
        case 0:
            return AgentCheckSchema::kInteger;
        case 7:
            return AgentCheckSchema::kFloating;
        case 4:
            return AgentCheckSchema::kUptime;
        case kAgentAction:
            return AgentCheckSchema::kAction;
        default:
            return AgentCheckSchema::kStates;
    }
}

// ---- thresholds --------------------------------------------------------------------------------

/// The thresholds of a measured check while it is validated.
class Thresholds {
  public:
    Thresholds(const NodetypeSchema& schema, const WorkArray& work, uint32_t subtype)
        : schema_(schema), work_(work), subtype_(subtype) {}

    void check() const {
        for (const auto& [absolute, percentage] : kBothForms)
            if (real(absolute) && real(percentage))
                fail_illegal_value("Cannot set both " + tql::property_name(absolute) + " and " +
                                   tql::property_name(percentage));
        const auto alert_above = effective(kBothForms[0]);
        const auto alert_below = effective(kBothForms[1]);
        const auto warn_above = effective(kBothForms[2]);
        const auto warn_below = effective(kBothForms[3]);
        check_pair(alert_above, "alert if above", warn_above, "warn if above");
        check_pair(alert_above, "alert if above", warn_below, "warn if below");
        check_pair(alert_above, "alert if above", alert_below, "alert if below");
        check_pair(warn_above, "warn if above", warn_below, "warn if below");
        check_pair(warn_above, "warn if above", alert_below, "alert if below");
        check_pair(warn_below, "warn if below", alert_below, "alert if below");
    }

  private:
    struct Forms {
        uint32_t absolute;
        uint32_t percentage;
    };
    static constexpr Forms kBothForms[] = {
        {prop::alertIfAbove, prop::alertIfAbovePct},
        {prop::alertIfBelow, prop::alertIfBelowPct},
        {prop::warnIfAbove, prop::warnIfAbovePct},
        {prop::warnIfBelow, prop::warnIfBelowPct},
    };

    [[nodiscard]] std::optional<double> real(uint32_t number) const {
        const work_t* value = find_work(schema_, work_, number, subtype_);
        if (value == nullptr) return std::nullopt;
        return static_cast<const mdb::PropertyDouble&>(*value->prop).value;
    }

    [[nodiscard]] std::optional<double> effective(const Forms& forms) const {
        if (const auto absolute = real(forms.absolute)) return absolute;
        const auto percentage = real(forms.percentage);
        const auto low = real(prop::rangeMin);
        const auto high = real(prop::rangeMax);
        if (!percentage || !low || !high) return std::nullopt;
        return *low + (*high - *low) * *percentage / 100;
    }

    /// Equal ones pass.
    static void check_pair(const std::optional<double>& upper, std::string_view upper_name,
                           const std::optional<double>& lower, std::string_view lower_name) {
        if (upper && lower && *upper < *lower)
            fail_illegal_value(fmt::format("Cannot set '{} (pct)' lower or equal to '{} (pct)",
                                           upper_name, lower_name));
    }

    const NodetypeSchema& schema_;
    const WorkArray& work_;
    const uint32_t subtype_;
};

}  // namespace

std::span<const std::string_view> agent_state_labels(uint32_t check_type) {
    switch (check_type) {
        case 1:
            return kProcessStates;
        case 2:
            return kRaidStates;
        case 3:
            return kBooleanStates;
        case 5:
            return kSmartStates;
        case 10:
            return kSlotStates;
        case 11:
            return kFanStates;
        case 12:
            return kPowerStates;
        case 13:
            return kDeviceStates;
        case 14:
            return kVolumeStates;
        case 15:
            return kPoolStates;
        default:
            return {};
    }
}

void check_agent_thresholds(const NodetypeSchema& schema, const WorkArray& work, uint32_t subtype) {
    Thresholds(schema, work, subtype).check();
}

bool is_top_group(const PropertyChain& chain, const NodeId& id, std::string_view agent_id) {
    bool found = false;
    chain.visit_object(id, [&](const PropertyChain& group) {
        found = is_group_called(group, agent_id) && stands_under_node(group);
    });
    return found;
}

bool is_real_log_group(const PropertyChain& chain, const NodeId& id, std::string_view agent_id) {
    bool found = false;
    chain.visit_object(id, [&](const PropertyChain& group) {
        found = is_group_called(group, agent_id) &&
                is_top_group(group, own_object(group, prop::parentId), "log");
    });
    return found;
}

// ---- checks ------------------------------------------------------------------------------------

AgentCheckSchema::AgentCheckSchema()
    : CheckSchema({.nodetype = nodetype::AgentCheck,
                   .tql_class = cls::Check,
                   .origin_type = kCheckOrigin,
                   .properties = kAgentCheckRows,
                   .shared = kAgentCheckShared,
                   .children = kAgentCheckChildren,
                   .greater = kAgentCheckRules,
                   .sibling_name = prop::agentId},
                  prop::countAgentChecks) {}

uint32_t AgentCheckSchema::type_property() const {
    return prop::checkType;
}

/// A stored check of a kind that doesn't exist is damaged; it reads as one of states.
uint32_t AgentCheckSchema::subtypeFromChain(const PropertyChain& chain) const {
    const uint32_t type = own_enum(chain, prop::checkType).value_or(kLogCheck);
    if (type > kHighestType) return kStates;
    if (type != kAdvancedLog) return plain_subtype(type);
    return log_subtype(chain, own_object(chain, prop::parentId));
}

uint32_t AgentCheckSchema::subtypeFromWork(const WorkArray& /*work*/) const {
    error::fail_assertion("AgentCheckSchema::getSubtype() invoked without handler");
}

uint32_t AgentCheckSchema::subtype(const SchemaObject& object, const WorkArray& work) const {
    const uint32_t type = subtype_enum_in(*this, work, prop::checkType);
    if (type != kAdvancedLog) return plain_subtype(type);
    const std::vector<TreePlace> path = object.path_to_root(object.node_id());
    uint32_t found = kLog;
    if (path.size() > 1)
        object.visit_object(path[1].id, [&](const PropertyChain& parent) {
            found = log_subtype(parent, path[1].id);
        });
    return found;
}

void AgentCheckSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                WorkArray& work, const NodeId& new_parent) const {
    CheckSchema::validate(object, chain, work, new_parent);
    const uint32_t own_subtype = subtype(object, work);
    if (own_subtype == kInteger || own_subtype == kFloating)
        check_agent_thresholds(*this, work, own_subtype);
}

void AgentCheckSchema::before_series(WorkArray& work, uint32_t subtype) const {
    const auto action = lookupProperty(prop::executeAction, subtype);
    if (!action || (work[*action].flags & kStateRequested) == 0) return;
    work[findProperty(prop::fire, subtype)].prop =
        std::make_unique<mdb::PropertyBool>(prop::fire, true);
}

void AgentCheckSchema::afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& context,
                                   WorkArray& work) const {
    CheckSchema::afterUpdate(handler, context, work);
    const bool active = flag_in(*this, work, prop::active);
    bool was_active = false;
    if (handler.is_stored()) {
        const InheritanceChain stored(handler.store(), handler.node_id(), handler.location());
        was_active = own_flag(stored, prop::active);
    }
    if (active != was_active) touch_agent_config(handler, context);
}

const CheckSchema::Layout* AgentCheckSchema::layout(uint32_t subtype, uint32_t type) const {
    switch (subtype) {
        case kInteger:
        case kFloating:
            return &continuous_layout();
        case kUptime:
            return &uptime_layout();
        case kAction:
            return nullptr;
        case kStates:
            return type == kLogCheck ? &large_incident_layout() : &enumerated_layout();
        default:
            return &large_incident_layout();
    }
}

AgentCheckSchema::Labels AgentCheckSchema::labels(const PropertyChain& chain) const {
    const std::string name = own_text(chain, prop::name);
    const std::string label = read_text(chain, *this, prop::label);
    return {labelled(label, name), labelled(label, check_long_label(chain, name))};
}

// ---- groups ------------------------------------------------------------------------------------

AgentCheckGroupSchema::AgentCheckGroupSchema()
    : TableSchema({.nodetype = nodetype::AgentCheckGroup,
                   .tql_class = cls::CheckGroup,
                   .origin_type = kCheckOrigin,
                   .properties = kAgentCheckGroupRows,
                   .shared = kGroupShared,
                   .children = kAgentCheckGroupChildren,
                   .sibling_name = prop::agentId}) {}

void AgentCheckGroupSchema::encodeSpecials(const SchemaObject& /*object*/,
                                           const PropertyChain& chain,
                                           const tql::pattern_t& pattern,
                                           tql::property_map_t& out) const {
    if (!wants_labels(pattern)) return;
    const std::string name = own_text(chain, prop::name);
    add_labels(pattern, out, own_text(chain, prop::agentId), name, group_long_label(chain, name));
}

bool AgentCheckGroupSchema::childrenHook(ObjectHandler& handler, const tql::pattern_t& pattern,
                                         tqlengine::HandlerList& out) const {
    if (!asks_for_check_templates(pattern) || !handler.is_stored()) return false;
    const InheritanceChain group(handler.store(), handler.node_id(), handler.location());
    if (is_top_group(group, handler.node_id(), "proc"))
        out.push_back(make_template<TqlProcessPresenceTemplateHandler>(handler));
    else if (is_real_log_group(group, handler.node_id(), "/forward"))
        out.push_back(make_template<TqlForwardLogTemplateHandler>(handler));
    else if (is_real_log_group(group, handler.node_id(), "/systemd"))
        out.push_back(make_template<SystemdTemplateHandler>(handler));
    // The children themselves and whatever else is suggested come behind.
    return false;
}

void AgentCheckGroupSchema::account(const SchemaObject& /*object*/, const WorkArray& /*work*/,
                                    UseMap& /*use*/) const {}

}  // namespace dbcache
