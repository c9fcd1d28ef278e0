#include "dbcache/schema/report_schemas.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "dbcache/schema/check_rows.h"
#include "dbcache/schema/public_edit.h"
#include "dbcache/schema/subtype_by_value.h"
#include "dbcache/schema_table.h"
#include "mdb/property_types.h"
#include "tql/enumerations.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

constexpr uint32_t kReportOrigin = 20;

// Values of ReportType, which are the subtypes.
constexpr uint32_t kAvailability[] = {1};
constexpr uint32_t kIncidents[] = {2};
constexpr uint32_t kConfiguration[] = {5};
constexpr uint32_t kByState[] = {2, 1};

// clang-format off
constexpr PropertyRow kReportRows[] = {
    {.number = prop::name, .kind = kind_t::icase_string, .flags = K},
    {.number = prop::owner, .kind = kind_t::object, .flags = N},
    {.number = prop::type, .kind = kind_t::enumeration, .flags = C, .enumeration = tql::enumeration::ReportType, .determines_subtype = true},
    {.number = prop::maxInstances, .kind = kind_t::u32, .flags = N, .initial = 5},
    {.number = prop::progress, .kind = kind_t::u32},
    {.number = prop::date, .kind = kind_t::enumeration, .enumeration = tql::enumeration::ReportPeriod},
    {.number = prop::time, .kind = kind_t::date, .flags = N},
    {.number = prop::frequency, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::RecurrenceDay},
    {.number = prop::contains, .kind = kind_t::object_set, .flags = N},
    {.number = prop::destination, .kind = kind_t::string, .flags = N},
    {.number = prop::public_, .kind = kind_t::boolean},
    {.number = prop::publicEdit, .kind = kind_t::boolean},
    {.number = prop::autoPublish, .kind = kind_t::boolean, .initial = true},
    {.number = prop::hideSectionLevel, .kind = kind_t::u32, .flags = N, .subtypes = kAvailability},
    {.number = prop::hideSectionThreshold, .kind = kind_t::real, .subtypes = kAvailability},
    {.number = prop::formSummary, .kind = kind_t::boolean, .initial = true, .subtypes = kAvailability},
    {.number = prop::formGraph, .kind = kind_t::boolean, .initial = true, .subtypes = kAvailability},
    {.number = prop::graphShowMinMax, .kind = kind_t::boolean, .initial = true, .subtypes = kAvailability},
    {.number = prop::graphShowNoResponse, .kind = kind_t::boolean, .initial = true, .subtypes = kAvailability},
    {.number = prop::graphAutoScale, .kind = kind_t::boolean, .initial = true, .subtypes = kAvailability},
    {.number = prop::graphTabularUptime, .kind = kind_t::boolean, .initial = true, .subtypes = kAvailability},
    {.number = prop::graphShowContinuous, .kind = kind_t::boolean, .subtypes = kAvailability},
    {.number = prop::graphTabularEnum, .kind = kind_t::boolean, .initial = true, .subtypes = kAvailability},
    {.number = prop::goodScore, .kind = kind_t::boolean, .subtypes = kByState},
    {.number = prop::warnScore, .kind = kind_t::boolean, .subtypes = kByState},
    {.number = prop::alertScore, .kind = kind_t::boolean, .initial = true, .subtypes = kByState},
    {.number = prop::includeConfig, .kind = kind_t::boolean, .initial = true, .subtypes = kByState},
    {.number = prop::excludeEmptyNode, .kind = kind_t::boolean, .subtypes = kIncidents},
    {.number = prop::includeChecks, .kind = kind_t::enumeration, .initial = 3, .enumeration = tql::enumeration::IncludeChecks, .subtypes = kConfiguration},
    {.number = prop::includeNodeClass, .kind = kind_t::boolean, .initial = true, .subtypes = kConfiguration},
    {.number = prop::lastGenerated, .kind = kind_t::date, .flags = N},
    {.number = prop::order, .kind = kind_t::u32},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
};

constexpr ChildRow kReportChildren[] = {
    {cls::Plan, nodetype::Plan},
    {cls::ReportInstance, nodetype::ReportInstance},
    {cls::ReportSelection, nodetype::ReportSelection},
    {cls::ReportOrder, nodetype::ReportOrder},
};

constexpr PropertyRow kReportOrderRows[] = {
    {.number = prop::orderTime, .kind = kind_t::date, .flags = K},
};

constexpr PropertyRow kReportSelectionRows[] = {
    {.number = prop::contains, .kind = kind_t::object_set, .flags = K},
    {.number = prop::nodeClasses, .kind = kind_t::object_set, .flags = K},
};

constexpr ChildRow kReportSelectionChildren[] = {{cls::ReportCheckSelection, nodetype::ReportCheckSelection}};

constexpr PropertyRow kReportCheckSelectionRows[] = {
    {.number = prop::contains, .kind = kind_t::string_list, .flags = K},
    {.number = prop::longLabel, .kind = kind_t::string},
    {.number = prop::remoteType, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::RemcheckType},
    {.number = prop::checkType, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::AgnetCheckType},
    {.number = prop::snmpType, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::SnmpType},
    {.number = prop::esxiType, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::EsxiType},
    {.number = prop::accumType, .kind = kind_t::boolean},
};

constexpr PropertyRow kReportSendToRows[] = {
    {.number = prop::destination, .kind = kind_t::string_list, .flags = K},
};

constexpr PropertyRow kReportInstanceRows[] = {
    {.number = prop::date, .kind = kind_t::date},
    {.number = prop::name, .kind = kind_t::string},
    {.number = prop::issueNode, .kind = kind_t::object},
    {.number = prop::workerNode, .kind = kind_t::u32, .initial = 0},
    {.number = prop::startTime, .kind = kind_t::date},
    {.number = prop::duration, .kind = kind_t::date},
    {.number = prop::orderTime, .kind = kind_t::date, .flags = N | K},
    {.number = prop::progress, .kind = kind_t::u32, .initial = 0},
    {.number = prop::generated, .kind = kind_t::date, .flags = N},
    {.number = prop::public_, .kind = kind_t::boolean, .initial = true},
    {.number = prop::order, .kind = kind_t::u32, .flags = N},
    {.number = prop::descriptionWeeklyPlan, .kind = kind_t::blob, .flags = N},
};

constexpr ChildRow kReportInstanceChildren[] = {
    {cls::ReportResult, nodetype::ReportResult},
    {cls::ReportResultFolder, nodetype::ReportResultFolder},
    {cls::ReportSendTo, nodetype::ReportSendTo},
    {cls::ReportText, nodetype::ReportText},
};

constexpr PropertyRow kReportResultRows[] = {
    {.number = prop::text, .kind = kind_t::string},
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::dataType, .kind = kind_t::i32},
    {.number = prop::numData, .kind = kind_t::u32},
    {.number = prop::unit, .kind = kind_t::unit},
    {.number = prop::checkType, .kind = kind_t::enumeration, .enumeration = tql::enumeration::AgnetCheckType},
    {.number = prop::originNode, .kind = kind_t::object},
    {.number = prop::tsdbIndex, .kind = kind_t::series, .flags = X | R},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
};

constexpr ChildRow kReportResultChildren[] = {{cls::ReportResult, nodetype::ReportResult}};

constexpr PropertyRow kReportResultFolderRows[] = {
    {.number = prop::order, .kind = kind_t::u32, .flags = K, .initial = 0},
    {.number = prop::folderType, .kind = kind_t::enumeration, .enumeration = tql::enumeration::FolderType},
    {.number = prop::name, .kind = kind_t::string},
    {.number = prop::originNode, .kind = kind_t::object, .flags = N},
    {.number = prop::comment, .kind = kind_t::string, .flags = N},
};

constexpr ChildRow kReportResultFolderChildren[] = {
    {cls::ReportResultFolder, nodetype::ReportResultFolder},
    {cls::ReportResultRow, nodetype::ReportResultRow},
    {cls::ReportResultGraph, nodetype::ReportResultGraph},
    {cls::ReportResultLog, nodetype::ReportResultLog},
};

constexpr PropertyRow kReportResultRowRows[] = {
    {.number = prop::order, .kind = kind_t::u32, .flags = K},
    {.number = prop::name, .kind = kind_t::string},
    {.number = prop::text, .kind = kind_t::string},
    {.number = prop::originNode, .kind = kind_t::object, .flags = N},
    {.number = prop::comment, .kind = kind_t::string, .flags = N},
};

constexpr PropertyRow kReportResultGraphRows[] = {
    {.number = prop::order, .kind = kind_t::u32, .flags = K},
    {.number = prop::name, .kind = kind_t::string},
    {.number = prop::unit, .kind = kind_t::unit, .flags = N},
    {.number = prop::preferredUnit, .kind = kind_t::unit, .flags = N},
    {.number = prop::preferredBinary, .kind = kind_t::boolean, .flags = N},
    {.number = prop::stateColors, .kind = kind_t::state_colors, .flags = N},
    {.number = prop::tsdbIndex, .kind = kind_t::series, .flags = X | R},
    {.number = prop::dataType, .kind = kind_t::i32, .flags = N},
    {.number = prop::plotMin, .kind = kind_t::real, .flags = N},
    {.number = prop::plotMax, .kind = kind_t::real, .flags = N},
    {.number = prop::alertIfAbove, .kind = kind_t::real, .flags = N},
    {.number = prop::warnIfAbove, .kind = kind_t::real, .flags = N},
    {.number = prop::warnIfBelow, .kind = kind_t::real, .flags = N},
    {.number = prop::alertIfBelow, .kind = kind_t::real, .flags = N},
    {.number = prop::comment, .kind = kind_t::string, .flags = N},
    {.number = prop::graphShowMinMax, .kind = kind_t::boolean},
    {.number = prop::graphShowNoResponse, .kind = kind_t::boolean},
    {.number = prop::graphTabularUptime, .kind = kind_t::boolean},
    {.number = prop::graphShowContinuous, .kind = kind_t::boolean},
};

constexpr PropertyRow kReportResultLogRows[] = {
    {.number = prop::order, .kind = kind_t::u32, .flags = K},
    {.number = prop::name, .kind = kind_t::string},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
    {.number = prop::comment, .kind = kind_t::string, .flags = N},
};

constexpr PropertyRow kReportTextRows[] = {
    {.number = prop::order, .kind = kind_t::u32, .flags = K},
    {.number = prop::comment, .kind = kind_t::marl, .flags = N},
};

constexpr PropertyRow kDomainReportTextRows[] = {
    {.number = prop::type, .kind = kind_t::enumeration, .flags = K, .enumeration = tql::enumeration::ReportTextType},
    {.number = prop::comment, .kind = kind_t::marl, .flags = N},
};
// clang-format on

/// The limits of a graph keep the order that those of a check keep.
constexpr std::array<GreaterRow, 7> kGraphRules = [] {
    std::array<GreaterRow, 7> rules{};
    rules[0] = check_rows::plot_rule(kAllSubtypes);
    std::ranges::copy(check_rows::threshold_rules(kAllSubtypes), rules.begin() + 1);
    return rules;
}();

struct ReportKind {
    uint32_t type;
    std::string_view sibling_name;
    std::string_view label;
};
constexpr std::array<ReportKind, 4> kReportKinds = {{
    {1, "availability", "System availability"},
    {2, "incidents", "Incidents"},
    {3, "responsetime", "Response time"},
    {5, "configuration", "Current configuration"},
}};

}  // namespace

class ReportSchema : public PublicEdit<SubtypeByValue<StoredEnum>> {
  public:
    ReportSchema()
        : PublicEdit(
              "Only public viewable reports, can be public editable. Enable Public viewable "
              "if you wish for this report to be public editable.",
              ClassTable{.nodetype = nodetype::Report,
                         .tql_class = cls::Report,
                         .origin_type = kReportOrigin,
                         .properties = kReportRows,
                         .children = kReportChildren,
                         .sibling_name = prop::name},
              prop::type) {}

    void listTemplates(const SchemaObject& /*parent*/,
                       std::vector<TemplateValues>& out) const override {
        for (const ReportKind& kind : kReportKinds)
            out.push_back({tql::value_t(std::make_unique<tql::property_enum_t>(
                prop::type, tql::enumeration::ReportType, kind.type, 0))});
    }

    void encodeTemplateSpecials(const SchemaObject* /*parent*/, const TemplateValues& values,
                                const tql::pattern_t& pattern,
                                tql::property_map_t& out) const override {
        const uint32_t type = tql::as_enum(*values.front(), tql::enumeration::ReportType);
        for (const ReportKind& kind : kReportKinds)
            if (kind.type == type)
                add_labels(pattern, out, kind.sibling_name, kind.label, kind.label);
    }
};

/// A part of a report that keeps a copy of a check's data: `dataType` says of what type.
template <class Base>
class WithDataType final : public Base {
  public:
    using Base::Base;
    [[nodiscard]] uint32_t tsdbGetDataType(const PropertyChain& chain,
                                           uint32_t property) const override {
        mdb::PropertyInt32 type(prop::dataType);
        if (property != prop::tsdbIndex || chain.read(0, type) != found_t::value)
            return Base::tsdbGetDataType(chain, property);
        return static_cast<uint32_t>(type.value);
    }
};

namespace schema {

void declare_reports(SchemaTable& table) {
    const auto add = [&](const ClassTable& rows) {
        table.registerSchema(std::make_unique<TableSchema<NodetypeSchema>>(rows));
    };
    const auto add_ordered = [&](const ClassTable& rows) {
        table.registerSchema(std::make_unique<OrderSiblingEncoder>(rows));
    };
    table.registerSchema(std::make_unique<ReportSchema>());
    add({.nodetype = nodetype::ReportOrder,
         .tql_class = cls::ReportOrder,
         .properties = kReportOrderRows});
    add({.nodetype = nodetype::ReportSelection,
         .tql_class = cls::ReportSelection,
         .origin_type = kReportOrigin,
         .properties = kReportSelectionRows,
         .children = kReportSelectionChildren});
    add({.nodetype = nodetype::ReportCheckSelection,
         .tql_class = cls::ReportCheckSelection,
         .properties = kReportCheckSelectionRows});
    add({.nodetype = nodetype::ReportSendTo,
         .tql_class = cls::ReportSendTo,
         .properties = kReportSendToRows});
    add({.nodetype = nodetype::ReportInstance,
         .tql_class = cls::ReportInstance,
         .properties = kReportInstanceRows,
         .children = kReportInstanceChildren});
    table.registerSchema(std::make_unique<WithDataType<TableSchema<NodetypeSchema>>>(
        ClassTable{.nodetype = nodetype::ReportResult,
                   .tql_class = cls::ReportResult,
                   .properties = kReportResultRows,
                   .children = kReportResultChildren,
                   .sibling_name = prop::name}));
    add_ordered({.nodetype = nodetype::ReportResultFolder,
                 .tql_class = cls::ReportResultFolder,
                 .properties = kReportResultFolderRows,
                 .children = kReportResultFolderChildren});
    add_ordered({.nodetype = nodetype::ReportResultRow,
                 .tql_class = cls::ReportResultRow,
                 .properties = kReportResultRowRows});
    table.registerSchema(std::make_unique<WithDataType<OrderSiblingEncoder>>(
        ClassTable{.nodetype = nodetype::ReportResultGraph,
                   .tql_class = cls::ReportResultGraph,
                   .properties = kReportResultGraphRows,
                   .greater = kGraphRules}));
    add_ordered({.nodetype = nodetype::ReportResultLog,
                 .tql_class = cls::ReportResultLog,
                 .properties = kReportResultLogRows});
    add_ordered({.nodetype = nodetype::ReportText,
                 .tql_class = cls::ReportText,
                 .properties = kReportTextRows});
    add({.nodetype = nodetype::DomainReportText,
         .tql_class = cls::ReportText,
         .properties = kDomainReportTextRows});
}

}  // namespace schema

}  // namespace dbcache
