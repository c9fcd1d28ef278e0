#include "dbcache/schema/net_check_schema.h"

#include <array>
#include <fmt/format.h>

#include "dbcache/schema/check_rows.h"
#include "dbcache/time_series.h"
#include "mdb/property_types.h"
#include "tql/property_map.h"
#include "util/unit_expression.h"

namespace dbcache {

namespace {

using namespace check_rows;

/// Values of remoteType, and with them subtypes.
enum service_t : uint32_t {
    kHttp = 1,
    kIcmp = 2,
    kDns = 3,
    kSmtp = 4,
    kPop3 = 5,
    kTcp = 6,
    kFtp = 7,
    kImap = 8,
    kCustom = 15,
};

constexpr uint32_t kHttpOnly[] = {kHttp};
constexpr uint32_t kIcmpOnly[] = {kIcmp};
constexpr uint32_t kDnsOnly[] = {kDns};
constexpr uint32_t kSmtpOnly[] = {kSmtp};
constexpr uint32_t kPop3Only[] = {kPop3};
constexpr uint32_t kTcpOnly[] = {kTcp};
constexpr uint32_t kFtpOnly[] = {kFtp};
constexpr uint32_t kImapOnly[] = {kImap};
constexpr uint32_t kCustomOnly[] = {kCustom};
constexpr uint32_t kWithLogin[] = {kPop3, kFtp, kImap};
constexpr uint32_t kWithSsl[] = {kHttp, kPop3, kImap};

// clang-format off
constexpr PropertyRow kNetCheckRows[] = {
    {.number = prop::remoteName, .kind = kind_t::string, .flags = K},
    {.number = prop::remoteType, .kind = kind_t::enumeration, .flags = K | C, .enumeration = tql::enumeration::RemcheckType, .determines_subtype = true},
    {.number = prop::active, .kind = kind_t::boolean, .flags = C, .initial = true},
    kFrequency,
    kStationLocale,
    {.number = prop::warnIfAbove, .kind = kind_t::real_int, .flags = N, .initial = 500},
    {.number = prop::alertIfAbove, .kind = kind_t::real_int, .flags = N, .initial = 1000},
    {.number = prop::preferredUnit, .kind = kind_t::unit, .flags = N},

    {.number = prop::port, .kind = kind_t::u32, .flags = K, .initial = 80, .subtypes = kHttpOnly},
    {.number = prop::port, .kind = kind_t::u32, .flags = K, .initial = 53, .subtypes = kDnsOnly},
    {.number = prop::port, .kind = kind_t::u32, .flags = K, .initial = 25, .subtypes = kSmtpOnly},
    {.number = prop::port, .kind = kind_t::u32, .flags = K, .initial = 110, .subtypes = kPop3Only},
    {.number = prop::port, .kind = kind_t::u32, .flags = K, .subtypes = kTcpOnly},
    {.number = prop::port, .kind = kind_t::u32, .flags = K, .initial = 21, .subtypes = kFtpOnly},
    {.number = prop::port, .kind = kind_t::u32, .flags = K, .initial = 143, .subtypes = kImapOnly},

    {.number = prop::httpUrl, .kind = kind_t::string, .flags = N, .subtypes = kHttpOnly},
    {.number = prop::httpVersion, .kind = kind_t::enumeration, .initial = 1, .fallback = 0, .enumeration = tql::enumeration::HttpVerion, .subtypes = kHttpOnly},
    {.number = prop::httpUserAgent, .kind = kind_t::string, .flags = N, .subtypes = kHttpOnly},
    {.number = prop::httpStatusRegex, .kind = kind_t::regex, .initial = "^2..", .subtypes = kHttpOnly},
    {.number = prop::httpContentRegex, .kind = kind_t::regex, .subtypes = kHttpOnly},
    {.number = prop::useSsl, .kind = kind_t::boolean, .subtypes = kWithSsl},
    {.number = prop::checkAttempts, .kind = kind_t::u32, .initial = 1, .low = 1, .high = 32, .subtypes = kIcmpOnly},
    {.number = prop::dnsHost, .kind = kind_t::string, .flags = N, .subtypes = kDnsOnly},
    {.number = prop::dnsIp, .kind = kind_t::string, .flags = N, .subtypes = kDnsOnly},
    {.number = prop::smtpExecuteVrfy, .kind = kind_t::boolean, .subtypes = kSmtpOnly},
    {.number = prop::user, .kind = kind_t::string, .flags = N, .subtypes = kWithLogin},
    {.number = prop::checkPassword, .kind = kind_t::string, .flags = N, .subtypes = kWithLogin},
    {.number = prop::connClose, .kind = kind_t::boolean, .flags = N, .subtypes = kTcpOnly},
    {.number = prop::customType, .kind = kind_t::string, .flags = K | C, .subtypes = kCustomOnly},
};
// clang-format on

constexpr SharedRows kNetCheckShared[] = {{kCommon}, {kForecast}, {kIntPlot}};

constexpr ChildRow kNetCheckChildren[] = {
    {cls::Plan, nodetype::Plan},
    {cls::CheckAccumulation, nodetype::CheckAccumulation},
    {cls::AlertPathUsage, nodetype::AlertPathUsage},
    {cls::ForecastLock, nodetype::ForecastLock},
    {cls::ForecastModel, nodetype::ForecastModel},
    {cls::ActionConnection, nodetype::ActionConnection},
    {cls::CustomParameter, nodetype::CustomParameter},
};

constexpr GreaterRow kNetCheckRules[] = {above_rule(kAllSubtypes), plot_rule(kAllSubtypes)};

constexpr PropertyRow kCustomParameterRows[] = {
    {.number = prop::tag, .kind = kind_t::string, .flags = K},
    {.number = prop::value, .kind = kind_t::string},
};

/// How the service of a check is called in labels.
std::string service_name(uint32_t service) {
    if (service == kTcp) return "TCP";
    return tql::enumeration_text(tql::enumeration::RemcheckType, service);
}

/// The services that a template is offered for.
constexpr service_t kOffered[] = {kHttp, kIcmp, kDns, kSmtp, kPop3, kTcp, kFtp, kImap};

bool has_port(uint32_t service) {
    return service != kIcmp && service >= kHttp && service <= kImap;
}

/// "[HTTPS/443]", "[ICMP]", "[Custom/NAME]".
std::string service_text(const PropertyChain& chain) {
    const uint32_t service = own_enum(chain, prop::remoteType).value_or(0);
    std::string text = "[" + service_name(service);
    if (service == kCustom) {
        mdb::PropertyString type(prop::customType);
        const bool there = chain.read(0, type) == found_t::value;
        return text + "/" + (there ? type.value : "(missing)") + "]";
    }
    const std::optional<uint32_t> port = own_number(chain, prop::port);
    if (!port) return text + "]";
    return fmt::format("{}{}/{}]", text, own_flag(chain, prop::useSsl) ? "S" : "", *port);
}

const tql::property_t* find_value(const TemplateValues& values, uint32_t number) {
    for (const tql::value_t& value : values)
        if (value->property == number) return value.get();
    return nullptr;
}

}  // namespace

NetCheckSchema::NetCheckSchema()
    : CheckSchema({.nodetype = nodetype::NetCheck,
                   .tql_class = cls::Check,
                   .origin_type = kCheckOrigin,
                   .properties = kNetCheckRows,
                   .shared = kNetCheckShared,
                   .children = kNetCheckChildren,
                   .greater = kNetCheckRules},
                  prop::countNetChecks) {}

std::optional<std::string> NetCheckSchema::siblingName(const PropertyChain& chain) const {
    return service_text(chain);
}

NetCheckSchema::Labels NetCheckSchema::labels(const PropertyChain& chain) const {
    const std::string label = net_check_label(chain);
    return {label, label};
}

std::string net_check_label(const PropertyChain& chain) {
    const std::string name = own_text(chain, prop::remoteName);
    return name.empty() ? service_text(chain) : name + " " + service_text(chain);
}

void NetCheckSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                              WorkArray& work, const NodeId& new_parent) const {
    CheckSchema::validate(object, chain, work, new_parent);
    if (!flag_in(*this, work, prop::active)) fail_invalid(prop::active);
}

/// A stored check without a service is damaged; it has the properties of all services alone.
uint32_t NetCheckSchema::subtypeFromChain(const PropertyChain& chain) const {
    return own_enum(chain, prop::remoteType).value_or(0);
}

uint32_t NetCheckSchema::subtypeFromWork(const WorkArray& work) const {
    return subtype_enum_in(*this, work, prop::remoteType);
}

void NetCheckSchema::getUse(const WorkArray& /*work*/, UseMap& use) const {
    use = {{counter(), 1}};
}

const CheckSchema::Layout* NetCheckSchema::layout(uint32_t /*subtype*/, uint32_t /*type*/) const {
    return &continuous_layout();
}

/// Response times are in milliseconds.
std::vector<uint8_t> NetCheckSchema::computed_unit(const PropertyChain& /*chain*/) const {
    return UnitExpression("ms").to_blob();
}

// ---- templates ---------------------------------------------------------------------------------

void NetCheckSchema::listTemplates(const SchemaObject& /*parent*/,
                                   std::vector<TemplateValues>& out) const {
    for (const service_t service : kOffered)
        out.emplace_back().push_back(std::make_unique<tql::property_enum_t>(
            prop::remoteType, tql::enumeration::RemcheckType, service, 0U));
}

void NetCheckSchema::encodeTemplateSpecials(const SchemaObject* /*parent*/,
                                            const TemplateValues& values,
                                            const tql::pattern_t& pattern,
                                            tql::property_map_t& out) const {
    const tql::property_t* type = find_value(values, prop::remoteType);
    const uint32_t service =
        type == nullptr ? 0 : tql::as_enum(*type, tql::enumeration::RemcheckType);
    const std::string name = service_name(service);
    std::string shown = "Add " + name + " Check";
    if (service == kTcp) shown = "Add generic TCP Check";
    if (service == kCustom) {
        const tql::property_t* custom = find_value(values, prop::customType);
        error::check(custom != nullptr && !custom->is_null, "Custom type is null");
        shown = "Add custom NetCheck: " + tql::as_string(*custom);
    }
    add_labels(pattern, out, name, shown, shown);
    const bool port = has_port(service);
    const auto put = [&](uint32_t number, std::string text) {
        if (pattern.wants(number))
            tql::add<tql::property_string_t>(out, number, std::move(text), kComputed);
    };
    put(prop::siblingNamePattern, name + ".$remoteName" + (port ? ".$port" : ".0"));
    put(prop::treeLabelPattern, "$remoteName [" + name + (port ? "/$port]" : "]"));
}

// ---- settings of custom checks -----------------------------------------------------------------

CustomParameterSchema::CustomParameterSchema()
    : TableSchema({.nodetype = nodetype::CustomParameter,
                   .tql_class = cls::CustomParameter,
                   .origin_type = kCheckOrigin,
                   .properties = kCustomParameterRows,
                   .sibling_name = prop::tag}) {}

void CustomParameterSchema::encodeSpecials(const SchemaObject& /*object*/,
                                           const PropertyChain& chain,
                                           const tql::pattern_t& pattern,
                                           tql::property_map_t& out) const {
    const std::string tag = own_text(chain, prop::tag);
    add_labels(pattern, out, tag, tag, tag);
}

void CustomParameterSchema::encodeTemplateSpecials(const SchemaObject* /*parent*/,
                                                   const TemplateValues& /*values*/,
                                                   const tql::pattern_t& pattern,
                                                   tql::property_map_t& out) const {
    add_labels(pattern, out, "template", "Add custom parameter", "Add custom parameter");
}

void CustomParameterSchema::listTemplates(const SchemaObject& parent,
                                          std::vector<TemplateValues>& out) const {
    parent.visit_object(parent.node_id(), [&](const PropertyChain& check) {
        if (own_enum(check, prop::remoteType) == kCustom) out.emplace_back();
    });
}

}  // namespace dbcache
