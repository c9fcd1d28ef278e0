#include "dbcache/schema/derived_check_schemas.h"

#include <array>

#include "dbcache/object_handler.h"
#include "dbcache/schema/check_rows.h"
#include "dbcache/schema/check_schema.h"
#include "dbcache/schema/net_check_schema.h"
#include "dbcache/time_series.h"
#include "mdb/property_types.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

using namespace check_rows;

constexpr uint32_t kAccumulationConfig[] = {cls::NodeClassCheckAccumulationConfig};
constexpr uint32_t kMultiCheckConfig[] = {cls::NodeClassMultiCheckConfig};
constexpr uint32_t kSumOrCheck[] = {cls::SumExpression, cls::CheckExpression};
constexpr uint32_t kTerms[] = {cls::SumExpression, cls::CheckExpression, cls::MultiCheckExpression};

// clang-format off
constexpr PropertyRow kCheckAccumulationRows[] = {
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kAccumulationConfig},
    kInheritsMark,
    {.number = prop::period, .kind = kind_t::enumeration, .flags = K | C, .initial = 3, .enumeration = tql::enumeration::Period},
    {.number = prop::rolling, .kind = kind_t::boolean, .flags = K | C},
    {.number = prop::alertOneShot, .kind = kind_t::boolean},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::comment, .kind = kind_t::marl},
    {.number = prop::alertGroup, .kind = kind_t::object, .flags = N, .classes = kAlertGroup},
    {.number = prop::acknowledgeAlerts, .kind = kind_t::boolean},
    {.number = prop::lastAcknowledge, .kind = kind_t::date, .flags = N | X},
    {.number = prop::resetScore, .kind = kind_t::action, .flags = X},
    {.number = prop::dependsOn, .kind = kind_t::object_set, .flags = X},
    {.number = prop::warningSentTo, .kind = kind_t::object_set, .flags = X},
    {.number = prop::alertSentTo, .kind = kind_t::object_set, .flags = X},
    {.number = prop::tsdbIndex, .kind = kind_t::series, .flags = X | R},
};

constexpr PropertyRow kMultiCheckRows[] = {
    {.number = prop::name, .kind = kind_t::icase_string, .flags = K},
    {.number = prop::active, .kind = kind_t::boolean, .flags = C},
    kActiveMark,
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    kComment,
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kMultiCheckConfig},
    kInheritsMark,
};

constexpr PropertyRow kSeriesRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::expression, .kind = kind_t::object, .flags = N | X, .classes = kSumOrCheck},
};
constexpr PropertyRow kSumExpressionRows[] = {
    {.number = prop::terms, .kind = kind_t::object_set, .flags = K | X, .classes = kTerms},
};
constexpr PropertyRow kCheckExpressionRows[] = {
    {.number = prop::check, .kind = kind_t::object, .flags = N | K, .classes = kAnyCheck},
};
constexpr PropertyRow kMultiCheckExpressionRows[] = {
    {.number = prop::check, .kind = kind_t::object_set, .flags = K},
};
// clang-format on

constexpr SharedRows kCheckAccumulationShared[] = {{kRealThresholds}, {kPreferred}};
constexpr auto kCheckAccumulationRules = threshold_rules(kAllSubtypes);

constexpr ChildRow kCheckAccumulationChildren[] = {
    {cls::AlertPathUsage, nodetype::AlertPathUsage},
    {cls::ActionConnection, nodetype::ActionConnection},
};
constexpr ChildRow kMultiCheckChildren[] = {{cls::Series, nodetype::Series}};
constexpr ChildRow kSeriesChildren[] = {
    {cls::SumExpression, nodetype::SumExpression},
    {cls::CheckExpression, nodetype::CheckExpression},
    {cls::MultiCheckExpression, nodetype::MultiCheckExpression},
};

std::string period_text(uint32_t period) {
    return tql::enumeration_text(tql::enumeration::Period, period);
}

/// How the check with this record is called in trees.
std::string check_label(const PropertyChain& check) {
    PropertyNodeType type(prop::nodeType);
    if (check.read(0, type) != found_t::value) return {};
    const std::string label = own_text(check, prop::label);
    switch (static_cast<uint32_t>(type.value)) {
        case nodetype::NetCheck:
            return net_check_label(check);
        case nodetype::SnmpCheck:
            return labelled(label, text_of(check, own_object(check, prop::mibObject), prop::name));
        default:
            return labelled(label, own_text(check, prop::name));
    }
}

void put_patterns(const tql::pattern_t& pattern, tql::property_map_t& out, std::string_view name,
                  std::string_view label) {
    for (const auto& [number, text] :
         {std::pair{prop::siblingNamePattern, name}, std::pair{prop::treeLabelPattern, label}})
        if (pattern.wants(number))
            tql::add<tql::property_string_t>(out, number, std::string(text), kComputed);
}

}  // namespace

// ---- accumulations -----------------------------------------------------------------------------

std::string accumulation_name(uint32_t period, bool rolling) {
    return period_text(period) + (rolling ? " rolling" : "");
}

CheckAccumulationSchema::CheckAccumulationSchema()
    : TableSchema({.nodetype = nodetype::CheckAccumulation,
                   .tql_class = cls::CheckAccumulation,
                   .origin_type = kCheckOrigin,
                   .properties = kCheckAccumulationRows,
                   .shared = kCheckAccumulationShared,
                   .children = kCheckAccumulationChildren,
                   .greater = kCheckAccumulationRules}) {}

std::optional<std::string> CheckAccumulationSchema::siblingName(const PropertyChain& chain) const {
    return period_text(own_enum(chain, prop::period).value_or(0)) + ":" +
           (own_flag(chain, prop::rolling) ? "rolling" : "non-rolling");
}

void CheckAccumulationSchema::encodeSpecials(const SchemaObject& /*object*/,
                                             const PropertyChain& chain,
                                             const tql::pattern_t& pattern,
                                             tql::property_map_t& out) const {
    if (pattern.wants(prop::hasInherits))
        tql::add<tql::property_boolean_t>(out, prop::hasInherits, chain.hasParent(), kComputed);
    if (!wants_labels(pattern)) return;
    const std::string label = accumulation_name(own_enum(chain, prop::period).value_or(0),
                                                own_flag(chain, prop::rolling)) +
                              " accumulation";
    std::string parent;
    chain.visit_object(own_object(chain, prop::parentId),
                       [&](const PropertyChain& check) { parent = check_label(check); });
    add_labels(pattern, out, siblingName(chain).value_or(""), label, label + " of " + parent);
}

void CheckAccumulationSchema::listTemplates(const SchemaObject& /*parent*/,
                                            std::vector<TemplateValues>& out) const {
    out.emplace_back();
}

void CheckAccumulationSchema::encodeTemplateSpecials(const SchemaObject* parent,
                                                     const TemplateValues& /*values*/,
                                                     const tql::pattern_t& pattern,
                                                     tql::property_map_t& out) const {
    const std::string_view shown = "Add accumulation";
    std::string longer(shown);
    if (parent != nullptr)
        parent->visit_object(parent->node_id(), [&](const PropertyChain& check) {
            longer += " of " + check_label(check);
        });
    add_labels(pattern, out, "template", shown, longer);
    put_patterns(pattern, out, "$period:${rolling?rolling:non-rolling}",
                 "$period${rolling? rolling:} accumulation");
}

void CheckAccumulationSchema::afterUpdate(ObjectHandler& handler,
                                          tqlengine::RequestContext& /*context*/,
                                          WorkArray& work) const {
    const bool rolling = flag_in(*this, work, prop::rolling);
    allocate_if(handler, true, prop::tsdbIndex, rolling ? &continuous_layout() : &uptime_layout(),
                work);
}

uint32_t CheckAccumulationSchema::tsdbGetDataType(const PropertyChain& chain,
                                                  uint32_t /*property*/) const {
    return own_flag(chain, prop::rolling) ? kContinuousData : kUptimeData;
}

// ---- multi checks ------------------------------------------------------------------------------

MultiCheckSchema::MultiCheckSchema(uint32_t own_nodetype)
    : TableSchema({.nodetype = own_nodetype,
                   .tql_class = cls::MultiCheck,
                   .origin_type = kCheckOrigin,
                   .properties = kMultiCheckRows,
                   .children = kMultiCheckChildren,
                   .sibling_name = prop::name}) {}

std::string MultiCheckSchema::long_label(const PropertyChain& /*chain*/,
                                         const std::string& name) const {
    return name;
}

std::string GroupedMultiCheckSchema::long_label(const PropertyChain& chain,
                                                const std::string& name) const {
    return check_long_label(chain, name);
}

void MultiCheckSchema::encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                                      const tql::pattern_t& pattern,
                                      tql::property_map_t& out) const {
    if (pattern.wants(prop::hasInherits))
        tql::add<tql::property_boolean_t>(out, prop::hasInherits, chain.hasParent(), kComputed);
    if (!wants_labels(pattern)) return;
    const std::string name = own_text(chain, prop::name);
    add_labels(pattern, out, name, name, long_label(chain, name));
}

void MultiCheckSchema::listTemplates(const SchemaObject& /*parent*/,
                                     std::vector<TemplateValues>& out) const {
    out.emplace_back();
}

void MultiCheckSchema::encodeTemplateSpecials(const SchemaObject* /*parent*/,
                                              const TemplateValues& /*values*/,
                                              const tql::pattern_t& pattern,
                                              tql::property_map_t& out) const {
    add_labels(pattern, out, "template", "Add MultiCheck", "Add MultiCheck");
    put_patterns(pattern, out, "$name", "$name");
}

SeriesSchema::SeriesSchema()
    : TableSchema({.nodetype = nodetype::Series,
                   .tql_class = cls::Series,
                   .properties = kSeriesRows,
                   .children = kSeriesChildren,
                   .sibling_name = prop::name}) {}

SumExpressionSchema::SumExpressionSchema()
    : TableSchema({.nodetype = nodetype::SumExpression,
                   .tql_class = cls::SumExpression,
                   .properties = kSumExpressionRows}) {}

CheckExpressionSchema::CheckExpressionSchema()
    : TableSchema({.nodetype = nodetype::CheckExpression,
                   .tql_class = cls::CheckExpression,
                   .properties = kCheckExpressionRows}) {}

MultiCheckExpressionSchema::MultiCheckExpressionSchema()
    : TableSchema({.nodetype = nodetype::MultiCheckExpression,
                   .tql_class = cls::MultiCheckExpression,
                   .properties = kMultiCheckExpressionRows}) {}

}  // namespace dbcache
