#include "dbcache/schema/node_class_schemas.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "dbcache/schema/agent_check_schema.h"
#include "dbcache/schema/check_rows.h"
#include "dbcache/schema/check_schema.h"
#include "dbcache/schema_table.h"
#include "mdb/property_types.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

using namespace check_rows;

constexpr uint32_t kNodeClassOrigin = 2;

constexpr uint32_t kNode[] = {cls::Node};
constexpr uint32_t kTag[] = {cls::Tag};
constexpr uint32_t kAccumulationConfig[] = {cls::NodeClassCheckAccumulationConfig};
constexpr uint32_t kMultiCheckConfig[] = {cls::NodeClassMultiCheckConfig};
/// A configuration may name what its checks may, and what stands for it in the class.
constexpr uint32_t kDependableOrConfig[] = {cls::Domain,
                                            cls::Node,
                                            cls::Check,
                                            cls::CheckAccumulation,
                                            cls::NodeClassNodeConfig,
                                            cls::NodeClassCheckConfig,
                                            cls::NodeClassCheckAccumulationConfig};

/// A configuration speaks for checks with states that it doesn't know one by one.
class ConfiguredStates final : public StateEnumeration {
  public:
    [[nodiscard]] bool exists(const PropertyChain& chain, uint32_t state) const override {
        if (own_enum(chain, prop::remoteType)) return false;  // measures times only
        const std::optional<uint32_t> kind = own_enum(chain, prop::checkType);
        if (!kind) return true;
        const auto labels = agent_state_labels(*kind);
        return state < labels.size() && !labels[state].empty();
    }
};
constinit const ConfiguredStates kConfiguredStates;

// clang-format off
constexpr PropertyRow kOnTheWayToHeirs = {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R};

constexpr PropertyRow kNodeClassRows[] = {
    {.number = prop::name, .kind = kind_t::icase_string, .flags = K},
    {.number = prop::description, .kind = kind_t::string},
    {.number = prop::abstract, .kind = kind_t::boolean},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::inheritsFrom, .kind = kind_t::acyclic_set},
    {.number = prop::icon, .kind = kind_t::png, .flags = N},
    {.number = prop::autoPromote, .kind = kind_t::boolean},
    kOnTheWayToHeirs,
};

constexpr PropertyRow kRegexRuleRows[] = {
    {.number = prop::ruleType, .kind = kind_t::enumeration, .flags = K, .initial = 3, .enumeration = tql::enumeration::RuleType},
    {.number = prop::regex, .kind = kind_t::regex, .flags = K},
};

constexpr PropertyRow kNodeConfigRows[] = {kOnTheWayToHeirs};

constexpr PropertyRow kGroupConfigRows[] = {
    {.number = prop::tag, .kind = kind_t::string, .flags = K | C},
    {.number = prop::forAll, .kind = kind_t::boolean, .flags = K | C},
    {.number = prop::tagId, .kind = kind_t::object, .flags = N | K, .classes = kTag},
    kOnTheWayToHeirs,
};

constexpr PropertyRow kCheckConfigRows[] = {
    {.number = prop::tag, .kind = kind_t::string, .flags = K | C | X},
    {.number = prop::forAll, .kind = kind_t::boolean, .flags = K | C | X},
    {.number = prop::tagId, .kind = kind_t::object, .flags = N | K | X, .classes = kTag},
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kNodeClassCheck},
    kInheritsMark,
    {.number = prop::treeLabel, .kind = kind_t::string, .flags = C | X},
    {.number = prop::longLabel, .kind = kind_t::string, .flags = C | X},
    {.number = prop::final, .kind = kind_t::boolean, .flags = X},
    {.number = prop::mustHave, .kind = kind_t::boolean, .flags = X},
    {.number = prop::hasConfiguration, .kind = kind_t::boolean, .flags = X, .initial = true},
    {.number = prop::remoteName, .kind = kind_t::string, .flags = N | C | X},
    {.number = prop::remoteType, .kind = kind_t::enumeration, .flags = N | C | X, .enumeration = tql::enumeration::RemcheckType},
    {.number = prop::checkType, .kind = kind_t::enumeration, .flags = N | C | X, .enumeration = tql::enumeration::AgnetCheckType},
    {.number = prop::snmpType, .kind = kind_t::enumeration, .flags = N | C | X, .enumeration = tql::enumeration::SnmpType},
    {.number = prop::customType, .kind = kind_t::string, .flags = N | C | X},

    {.number = prop::label, .kind = kind_t::string, .flags = N},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    kComment,
    {.number = prop::frequency, .kind = kind_t::u32, .flags = N, .low = 1, .high = 86400},
    {.number = prop::active, .kind = kind_t::boolean, .flags = N},
    kStationLocale,
    {.number = prop::alertGroup, .kind = kind_t::object, .flags = N, .classes = kAlertGroup, .exempt = kFixedAlertGroups},
    {.number = prop::alertStrategy, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::AlertStrategy},
    {.number = prop::acknowledgeAlerts, .kind = kind_t::boolean, .flags = N},
    {.number = prop::goodScore, .kind = kind_t::i32, .flags = N, .high = 0},
    {.number = prop::warnScore, .kind = kind_t::i32, .flags = N, .low = 0},
    {.number = prop::alertScore, .kind = kind_t::i32, .flags = N, .low = 0},
    {.number = prop::warnIfAbovePct, .kind = kind_t::real, .flags = N},
    {.number = prop::alertIfAbovePct, .kind = kind_t::real, .flags = N},
    {.number = prop::warnIfBelowPct, .kind = kind_t::real, .flags = N},
    {.number = prop::alertIfBelowPct, .kind = kind_t::real, .flags = N},
    {.number = prop::unit, .kind = kind_t::unit_from_text, .flags = N},
    {.number = prop::dependsOn, .kind = kind_t::object_set, .flags = N, .classes = kDependableOrConfig},
    {.number = prop::remedyId, .kind = kind_t::object, .flags = N, .classes = kAnyCheck},
    {.number = prop::automaticDowntime, .kind = kind_t::u32, .flags = N},
    {.number = prop::automaticResetScores, .kind = kind_t::boolean, .flags = N},
    {.number = prop::parasiteOn, .kind = kind_t::object, .flags = N, .classes = kAnyCheck},
    {.number = prop::parasitePattern, .kind = kind_t::pattern, .flags = N},
    {.number = prop::separatorRegex, .kind = kind_t::regex, .flags = N},
    {.number = prop::separatorInclusion, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::LogCheckSeparatorInclusion},
    {.number = prop::silenceWarn, .kind = kind_t::u32, .flags = N},
    {.number = prop::silenceAlert, .kind = kind_t::u32, .flags = N},
    {.number = prop::port, .kind = kind_t::u32, .flags = N},
    {.number = prop::useSsl, .kind = kind_t::boolean, .flags = N},
    {.number = prop::httpUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::httpVersion, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::HttpVerion},
    {.number = prop::httpUserAgent, .kind = kind_t::string, .flags = N},
    {.number = prop::httpStatusRegex, .kind = kind_t::regex, .flags = N},
    {.number = prop::httpContentRegex, .kind = kind_t::regex, .flags = N},
    {.number = prop::dnsHost, .kind = kind_t::string, .flags = N},
    {.number = prop::dnsIp, .kind = kind_t::string, .flags = N},
    {.number = prop::smtpExecuteVrfy, .kind = kind_t::boolean, .flags = N},
    {.number = prop::checkAttempts, .kind = kind_t::u32, .flags = N, .low = 1, .high = 32},
    {.number = prop::user, .kind = kind_t::string, .flags = N},
    {.number = prop::checkPassword, .kind = kind_t::string, .flags = N},
    {.number = prop::connClose, .kind = kind_t::boolean, .flags = N},
    {.number = prop::forecastEnabled, .kind = kind_t::boolean, .flags = N},
    {.number = prop::warnOnForecast, .kind = kind_t::boolean, .flags = N},
    {.number = prop::forecastAlertTime, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::ForecastAlerttime},
    {.number = prop::forecastAlertEstError, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::ForecastEsterror},
    {.number = prop::stateAction0, .kind = kind_t::state_action, .flags = N, .states = &kConfiguredStates},
};

constexpr PropertyRow kAccumulationConfigRows[] = {
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kAccumulationConfig},
    kInheritsMark,
    {.number = prop::tag, .kind = kind_t::string, .flags = K | C | X},
    {.number = prop::forAll, .kind = kind_t::boolean, .flags = K | C | X},
    {.number = prop::treeLabel, .kind = kind_t::string, .flags = C | X},
    {.number = prop::longLabel, .kind = kind_t::string, .flags = C | X},
    {.number = prop::final, .kind = kind_t::boolean, .flags = X},
    {.number = prop::mustHave, .kind = kind_t::boolean, .flags = X},
    {.number = prop::period, .kind = kind_t::enumeration, .flags = C | X, .initial = 3, .enumeration = tql::enumeration::Period},
    {.number = prop::rolling, .kind = kind_t::boolean, .flags = C | X},
    {.number = prop::alertOneShot, .kind = kind_t::boolean},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::comment, .kind = kind_t::marl},
    {.number = prop::alertGroup, .kind = kind_t::object, .flags = N, .classes = kAlertGroup},
    {.number = prop::acknowledgeAlerts, .kind = kind_t::boolean},
};

constexpr PropertyRow kMultiCheckConfigRows[] = {
    {.number = prop::tag, .kind = kind_t::string, .flags = K | C},
    {.number = prop::name, .kind = kind_t::icase_string, .flags = C},
    {.number = prop::active, .kind = kind_t::boolean},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::comment, .kind = kind_t::marl, .flags = N},
    {.number = prop::treeLabel, .kind = kind_t::string, .flags = C | X},
    {.number = prop::longLabel, .kind = kind_t::string, .flags = C | X},
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kMultiCheckConfig},
    kInheritsMark,
};

constexpr PropertyRow kConflictRows[] = {
    {.number = prop::object, .kind = kind_t::object, .flags = K},
    {.number = prop::node, .kind = kind_t::object, .flags = K, .classes = kNode},
    {.number = prop::classConfigObjects, .kind = kind_t::object_set},
    {.number = prop::explanation, .kind = kind_t::string, .flags = N},
};
// clang-format on

constexpr SharedRows kCheckConfigShared[] = {{kRealThresholds}, {kPreferred}, {kRealPlot}};
constexpr SharedRows kAccumulationConfigShared[] = {{kRealThresholds}, {kPreferred}};
constexpr auto kThresholdRules = threshold_rules(kAllSubtypes);

constexpr ChildRow kNodeClassChildren[] = {
    {cls::NodeClassRegexRule, nodetype::NodeClassRegexRule},
    {cls::NodeClassNodeConfig, nodetype::NodeClassNodeConfig},
};
constexpr ChildRow kNodeConfigChildren[] = {
    {cls::NodeClassCheckGroupConfig, nodetype::NodeClassCheckGroupConfig},
};
constexpr ChildRow kGroupConfigChildren[] = {
    {cls::NodeClassCheckGroupConfig, nodetype::NodeClassCheckGroupConfig},
    {cls::NodeClassCheckConfig, nodetype::NodeClassCheckConfig},
    {cls::NodeClassMultiCheckConfig, nodetype::NodeClassMultiCheckConfig},
    {cls::Tag, nodetype::Tag},
};
constexpr ChildRow kCheckConfigChildren[] = {
    {cls::EnumCheckTagRule, nodetype::EnumCheckTagRule},
    {cls::Plan, nodetype::Plan},
    {cls::LogCheckRule, nodetype::LogCheckRule},
    {cls::LogCheckRuleComment, nodetype::LogCheckRuleComment},
    {cls::NodeClassCheckAccumulationConfig, nodetype::NodeClassCheckAccumulationConfig},
    {cls::ActionConnection, nodetype::ActionConnection},
};
constexpr ChildRow kMultiCheckConfigChildren[] = {{cls::Series, nodetype::Series}};

// ---- what configurations have in common --------------------------------------------------------

/// By this name like objects of several classes are told apart: "1TAG", "*" for those that stand
/// for all, behind "tag:NAME:" where there is a tag.
std::string config_name(const PropertyChain& chain) {
    std::string name;
    chain.visit_object(own_object(chain, prop::tagId), [&](const PropertyChain& tag) {
        name = "tag:" + own_text(tag, prop::name) + ":";
    });
    return name + (own_flag(chain, prop::forAll) ? "*" : "1" + own_text(chain, prop::tag));
}

/// Percentages in a configuration are of the range of the check that follows it, of which nothing
/// but the lower end can be said here.
void add_range(const tql::pattern_t& pattern, tql::property_map_t& out) {
    if (pattern.wants(prop::rangeMin))
        tql::add<tql::property_real_t>(out, prop::rangeMin, 0.0, kComputed);
    if (pattern.wants(prop::rangeMax))
        out.insert_or_assign(prop::rangeMax,
                             std::make_unique<tql::property_real_t>(
                                 tql::property_real_t::null(prop::rangeMax, kComputed)));
}

// ---- the classes -------------------------------------------------------------------------------

class NodeClassSchema final : public TableSchema<NodetypeSchema> {
  public:
    NodeClassSchema()
        : TableSchema({.nodetype = nodetype::NodeClass,
                       .tql_class = cls::NodeClass,
                       .origin_type = kNodeClassOrigin,
                       .properties = kNodeClassRows,
                       .children = kNodeClassChildren,
                       .sibling_name = prop::name}) {}

    void encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override {
        if (!wants_labels(pattern)) return;
        const std::string name = own_text(chain, prop::name);
        add_labels(pattern, out, name, name, name);
    }

    void validate(const SchemaObject& object, const PropertyChain& chain, WorkArray& work,
                  const NodeId& new_parent) const override {
        TableSchema::validate(object, chain, work, new_parent);
        if (!flag_in(*this, work, prop::autoPromote)) return;
        const work_t* bases = find_work(*this, work, prop::inheritsFrom);
        if (bases == nullptr ||
            static_cast<const mdb::PropertyNodeIdList&>(*bases->prop).value.empty())
            fail_illegal_value(
                "A NodeClass with auto-promotion enabled must inherit (be derived) from at least "
                "one other NodeClass.");
    }
};

class NodeClassCheckGroupConfigSchema final : public SpecialSiblingEncoder {
  public:
    NodeClassCheckGroupConfigSchema()
        : SpecialSiblingEncoder({.nodetype = nodetype::NodeClassCheckGroupConfig,
                                 .tql_class = cls::NodeClassCheckGroupConfig,
                                 .origin_type = kNodeClassOrigin,
                                 .properties = kGroupConfigRows,
                                 .children = kGroupConfigChildren}) {}
    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& chain) const override {
        return config_name(chain);
    }
};

/// What a check that follows one, or an accumulation, takes its values from.
class FollowedConfigSchema : public SpecialSiblingEncoder {
  public:
    using SpecialSiblingEncoder::SpecialSiblingEncoder;
    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& chain) const override {
        return config_name(chain);
    }
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override {
        SpecialSiblingEncoder::encodeSpecials(object, chain, pattern, out);
        add_range(pattern, out);
    }
};

class NodeClassCheckConfigSchema final : public FollowedConfigSchema {
  public:
    NodeClassCheckConfigSchema()
        : FollowedConfigSchema({.nodetype = nodetype::NodeClassCheckConfig,
                                .tql_class = cls::NodeClassCheckConfig,
                                .origin_type = kNodeClassOrigin,
                                .properties = kCheckConfigRows,
                                .shared = kCheckConfigShared,
                                .children = kCheckConfigChildren}) {}

    /// By hand: mutual restrictions are left out while a part of the key is null, which the tag
    /// usually is.
    void validate(const SchemaObject& object, const PropertyChain& chain, WorkArray& work,
                  const NodeId& new_parent) const override {
        FollowedConfigSchema::validate(object, chain, work, new_parent);
        check_greater(work, plot_rule(kAllSubtypes));
        // Of the agent's checks equal thresholds are good enough, and only they have percentages.
        if (find_work(*this, work, prop::checkType) == nullptr)
            for (const GreaterRow& rule : kThresholdRules) check_greater(work, rule);
        check_agent_thresholds(*this, work, kAllSubtypes);
    }

  private:
    void check_greater(const WorkArray& work, const GreaterRow& rule) const {
        const work_t* greater = find_work(*this, work, rule.greater);
        const work_t* lesser = find_work(*this, work, rule.lesser);
        if (greater == nullptr || lesser == nullptr) return;
        const size_t index = findProperty(rule.greater, kAllSubtypes);
        if (properties()[index].schema->compare(*greater, *lesser) <= 0)
            fail_illegal_value(std::string(rule.message));
    }
};

class NodeClassCheckAccumulationConfigSchema final : public FollowedConfigSchema {
  public:
    NodeClassCheckAccumulationConfigSchema()
        : FollowedConfigSchema({.nodetype = nodetype::NodeClassCheckAccumulationConfig,
                                .tql_class = cls::NodeClassCheckAccumulationConfig,
                                .origin_type = kNodeClassOrigin,
                                .properties = kAccumulationConfigRows,
                                .shared = kAccumulationConfigShared,
                                .greater = kThresholdRules}) {}
};

class NodeClassMultiCheckConfigSchema final : public TableSchema<NodetypeSchema> {
  public:
    NodeClassMultiCheckConfigSchema()
        : TableSchema({.nodetype = nodetype::NodeClassMultiCheckConfig,
                       .tql_class = cls::NodeClassMultiCheckConfig,
                       .origin_type = kNodeClassOrigin,
                       .properties = kMultiCheckConfigRows,
                       .children = kMultiCheckConfigChildren,
                       .sibling_name = prop::name,
                       .suggestion = {"$name", "Add MultiCheck"}}) {}

    void encodeTemplateSpecials(const SchemaObject* parent, const TemplateValues& values,
                                const tql::pattern_t& pattern,
                                tql::property_map_t& out) const override {
        TableSchema::encodeTemplateSpecials(parent, values, pattern, out);
        for (const uint32_t number : {prop::treeLabelPattern, prop::siblingNamePattern})
            if (pattern.wants(number))
                tql::add<tql::property_string_t>(out, number, std::string("$name"), kComputed);
    }
};

class NodeClassConflictSchema final : public TableSchema<NodetypeSchema> {
  public:
    NodeClassConflictSchema()
        : TableSchema({.nodetype = nodetype::NodeClassConflict,
                       .tql_class = cls::NodeClassConflict,
                       .origin_type = kNodeClassOrigin,
                       .properties = kConflictRows}) {}

    void encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& /*chain*/,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override {
        for (const uint32_t number : {prop::treeLabel, prop::longLabel})
            if (pattern.wants(number))
                tql::add<tql::property_string_t>(out, number, std::string("NodeClass conflict"),
                                                 kComputed);
    }
};

}  // namespace

namespace schema {

void declare_node_classes(SchemaTable& table) {
    table.registerSchema(std::make_unique<NodeClassSchema>());
    table.registerSchema(std::make_unique<TableSchema<NodetypeSchema>>(
        ClassTable{.nodetype = nodetype::NodeClassRegexRule,
                   .tql_class = cls::NodeClassRegexRule,
                   .origin_type = kNodeClassOrigin,
                   .properties = kRegexRuleRows}));
    table.registerSchema(std::make_unique<TableSchema<SingletonSchema>>(
        ClassTable{.nodetype = nodetype::NodeClassNodeConfig,
                   .tql_class = cls::NodeClassNodeConfig,
                   .origin_type = kNodeClassOrigin,
                   .properties = kNodeConfigRows,
                   .children = kNodeConfigChildren}));
    table.registerSchema(std::make_unique<NodeClassCheckGroupConfigSchema>());
    table.registerSchema(std::make_unique<NodeClassCheckConfigSchema>());
    table.registerSchema(std::make_unique<NodeClassCheckAccumulationConfigSchema>());
    table.registerSchema(std::make_unique<NodeClassMultiCheckConfigSchema>());
    table.registerSchema(std::make_unique<NodeClassConflictSchema>());
}

}  // namespace schema

}  // namespace dbcache
