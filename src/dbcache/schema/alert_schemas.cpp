#include "dbcache/schema/alert_schemas.h"

#include <fmt/format.h>

#include "dbcache/conversions.h"
#include "dbcache/property_kinds.h"
#include "dbcache/schema/subtype_by_value.h"
#include "dbcache/schema_table.h"
#include "log/log.h"
#include "tql/enumerations.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

const logging::Logger logger{"alert_schema"};

// How a user is reached, and the subtype of such a path.
enum method_t : uint32_t {
    kHtmlMail = 0,
    kSmsByMail = 1,
    kNumericPager = 2,
    kDirectSms = 3,
    kPlainMail = 4,
    kCustom = 5,
    kPushA = 6,
    kPushB = 7,
};
constexpr uint32_t kPathSubtypes[] = {3, 4, 0, 5, 2, 1, 6, 7};

constexpr uint32_t kCustomPathConfigs[] = {cls::CustomAlertPathConfig};
constexpr uint32_t kCustomPaths[] = {1};
constexpr uint32_t kTextPaths[] = {2, 3, 4, 5};
constexpr uint32_t kMailPaths[] = {2, 3};
constexpr uint32_t kHtmlPaths[] = {3};
constexpr uint32_t kSmsPaths[] = {4, 5};
constexpr uint32_t kSmsByMailPaths[] = {4};
constexpr uint32_t kPushAPaths[] = {6};

// Subtypes of notification jobs by job type.
constexpr uint32_t kJobSubtypes[] = {0, 1, 3, 0, 2, 4};
constexpr uint32_t kObjectJobs[] = {0, 3};
constexpr uint32_t kStatusJobs[] = {0};
constexpr uint32_t kMailJobs[] = {2, 4};
constexpr uint32_t kSmsJobs[] = {2};

// clang-format off
// minDelay stands in the constructor.
constexpr PropertyRow kAlertPathRows[] = {
    {.number = prop::method, .kind = kind_t::enumeration, .flags = K | C, .enumeration = tql::enumeration::AlertMethod, .determines_subtype = true},
    {.number = prop::label, .kind = kind_t::string, .flags = K},
    {.number = prop::destination, .kind = kind_t::string, .flags = K},
    {.number = prop::minDelayScope, .kind = kind_t::enumeration, .initial = 0, .enumeration = tql::enumeration::MinDelayScope},
    {.number = prop::initialDelay, .kind = kind_t::u32, .initial = 0},
    {.number = prop::initialUnknownDelay, .kind = kind_t::u32, .initial = 120},
    {.number = prop::forWarnings, .kind = kind_t::boolean, .initial = true},
    {.number = prop::forAlertGroup, .kind = kind_t::boolean, .initial = true},
    {.number = prop::forAlerts, .kind = kind_t::boolean, .initial = true},
    {.number = prop::forForecasts, .kind = kind_t::boolean, .initial = true},
    {.number = prop::forUnknowns, .kind = kind_t::boolean},
    {.number = prop::forDowntimes, .kind = kind_t::boolean, .initial = true},
    {.number = prop::forOks, .kind = kind_t::boolean},
    {.number = prop::testPath, .kind = kind_t::action, .flags = X},

    {.number = prop::customType, .kind = kind_t::object, .flags = K, .classes = kCustomPathConfigs, .subtypes = kCustomPaths},
    {.number = prop::showDomainPath, .kind = kind_t::boolean, .initial = true, .subtypes = kTextPaths},
    {.number = prop::includeGraphs, .kind = kind_t::boolean, .initial = true, .subtypes = kMailPaths},
    {.number = prop::includeActions, .kind = kind_t::boolean, .initial = true, .subtypes = kMailPaths},
    {.number = prop::includeSummary, .kind = kind_t::boolean, .initial = true, .subtypes = kMailPaths},
    {.number = prop::logCheckLines, .kind = kind_t::u32, .initial = 20, .subtypes = kMailPaths},
    {.number = prop::graphInterval1, .kind = kind_t::enumeration, .initial = 7, .enumeration = tql::enumeration::Period, .subtypes = kHtmlPaths},
    {.number = prop::graphInterval2, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::Period, .subtypes = kHtmlPaths},
    {.number = prop::graphInterval3, .kind = kind_t::enumeration, .flags = N, .enumeration = tql::enumeration::Period, .subtypes = kHtmlPaths},
    {.number = prop::graphNo, .kind = kind_t::u32, .initial = 1, .subtypes = kHtmlPaths},
    {.number = prop::uptimeGraphInterval, .kind = kind_t::enumeration, .initial = 1, .enumeration = tql::enumeration::Period, .subtypes = kHtmlPaths},
    {.number = prop::graphShowMinMax, .kind = kind_t::enumeration, .initial = 2, .enumeration = tql::enumeration::YesNoDefault, .subtypes = kHtmlPaths},
    {.number = prop::graphShowNoResponse, .kind = kind_t::enumeration, .initial = 2, .enumeration = tql::enumeration::YesNoDefault, .subtypes = kHtmlPaths},
    {.number = prop::graphAutoScale, .kind = kind_t::enumeration, .initial = 2, .enumeration = tql::enumeration::YesNoDefault, .subtypes = kHtmlPaths},
    {.number = prop::graphTabularUptime, .kind = kind_t::enumeration, .initial = 2, .enumeration = tql::enumeration::YesNoDefault, .subtypes = kHtmlPaths},
    {.number = prop::graphTabularEnum, .kind = kind_t::enumeration, .initial = 2, .enumeration = tql::enumeration::YesNoDefault, .subtypes = kHtmlPaths},
    {.number = prop::includeSummarySms, .kind = kind_t::boolean, .initial = true, .subtypes = kSmsPaths},
    {.number = prop::smsSubject, .kind = kind_t::string, .flags = N, .subtypes = kSmsByMailPaths},
    {.number = prop::deviceToken, .kind = kind_t::blob, .subtypes = kPushAPaths},
};

constexpr PropertyRow kAlertPathUsageRows[] = {
    {.number = prop::path, .kind = kind_t::object, .flags = K},
    {.number = prop::timestamp, .kind = kind_t::date},
    {.number = prop::status, .kind = kind_t::enumeration, .initial = 12, .enumeration = tql::enumeration::Status},
    {.number = prop::workerNode, .kind = kind_t::u32},
};

constexpr PropertyRow kNotificationJobRows[] = {
    {.number = prop::alertNotifySerial, .kind = kind_t::u32, .flags = N | K},
    {.number = prop::attemptNo, .kind = kind_t::u32},
    {.number = prop::path, .kind = kind_t::object},
    {.number = prop::method, .kind = kind_t::enumeration, .flags = C, .enumeration = tql::enumeration::AlertMethod},
    {.number = prop::transmissionDue, .kind = kind_t::date},
    {.number = prop::alertNotifyNode, .kind = kind_t::object, .subtypes = kObjectJobs},
    {.number = prop::alertNotifyObject, .kind = kind_t::object, .subtypes = kObjectJobs},
    {.number = prop::alertNotifyJobType, .kind = kind_t::enumeration, .enumeration = tql::enumeration::NotifyJobType, .determines_subtype = true},
    {.number = prop::status, .kind = kind_t::enumeration, .enumeration = tql::enumeration::Status, .subtypes = kStatusJobs},
    {.number = prop::alertNotifyMailBody, .kind = kind_t::string, .subtypes = kMailJobs},
    {.number = prop::alertNotifyMailSubj, .kind = kind_t::string, .subtypes = kMailJobs},
    {.number = prop::alertNotifySMSBody, .kind = kind_t::string, .subtypes = kSmsJobs},
    {.number = prop::alertNotifySMSSubj, .kind = kind_t::string, .subtypes = kSmsJobs},
    {.number = prop::user, .kind = kind_t::object, .flags = N},
    {.number = prop::comment, .kind = kind_t::string, .flags = N},
    {.number = prop::workerNode, .kind = kind_t::u32},
};
// clang-format on

/// A delay in seconds that clients give as a signed number.
struct DelayConversion {
    static void to_stored(const tql::property_int_t& wire, mdb::PropertyUint32& stored,
                          uint32_t number) {
        if (wire.value < 0)
            fail_illegal_value("Value for " + tql::property_name(number) + " too low");
        stored.value = static_cast<uint32_t>(wire.value);
    }
    static void to_wire(const mdb::PropertyUint32& stored, tql::property_int_t& wire) {
        wire.value = static_cast<int32_t>(std::min(stored.value, uint32_t{INT32_MAX}));
    }
};
using MinDelaySchema = PropertyMovedSchemaTemplate<
    mdb::PropertyInt32,
    PropertySchemaTemplate<mdb::PropertyUint32, tql::property_int_t, DelayConversion>,
    OldToNewAssign>;

/// The name of a group, which may not be long.
class GroupNameSchema : public PropertyIdentifierSchema {
  public:
    using PropertyIdentifierSchema::PropertyIdentifierSchema;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override {
        PropertyIdentifierSchema::validate(object, chain, work);
        if (!work.is_null() && payload(work).size() > kMaxLength)
            fail_illegal_value("Value of property " + name() + " too long");
    }
    [[nodiscard]] std::string describe() const override {
        return fmt::format("{} length ..{}", PropertyIdentifierSchema::describe(), kMaxLength);
    }

  private:
    static constexpr size_t kMaxLength = 256;
};

/// The paths of a group; older groups hold them under the number that clients know.
using PathListSchema =
    PropertyMovedSchemaTemplate<mdb::PropertyNodeIdList, PropertyNodeIdSetSchema, OldToNewAssign>;

/// The text of a property of the object `id`; none when the object can't be loaded.
std::optional<std::string> text_of(const SchemaObject& object, const NodeId& id, uint32_t number) {
    std::optional<std::string> text;
    object.visit_object(id, [&](const PropertyChain& chain) {
        mdb::PropertyString value(number);
        if (chain.read(0, value) == found_t::value) text = std::move(value.value);
    });
    return text;
}

struct PathTexts {
    uint32_t method = 0;
    std::string destination;
    std::string label;
};

PathTexts read_path(const PropertyChain& chain) {
    StoredEnum method(prop::method);
    mdb::PropertyString destination(prop::destination);
    mdb::PropertyString label(prop::label);
    PathTexts texts;
    if (chain.read(0, method) == found_t::value) texts.method = static_cast<uint32_t>(method.value);
    if (chain.read(0, destination) == found_t::value)
        texts.destination = std::move(destination.value);
    if (chain.read(0, label) == found_t::value) texts.label = std::move(label.value);
    return texts;
}

}  // namespace

class AlertGroupSchema : public TableSchema<NodetypeSchema> {
  public:
    AlertGroupSchema()
        : TableSchema({.nodetype = nodetype::AlertGroup,
                       .tql_class = cls::AlertGroup,
                       .origin_type = 18,
                       .sibling_name = prop::name,
                       .suggestion = {"template:AlertGroup", "Add AlertGroup"}}) {
        const auto name = std::make_shared<GroupNameSchema>(prop::name, kPrimaryKey,
                                                            Defaults<std::string>::both({}));
        name->kind = kind_text(kind_t::identifier);
        addPropertySchema(name);
        const auto list = std::make_shared<PathListSchema>(
            prop::members, prop::alertPathList, 0U,
            ReferenceRules{
                .allowed_classes = {cls::AlertPath}, .own_domains_only = false, .exempt_ids = {}},
            Defaults<PathListSchema::value_type>::both({}));
        list->kind = "object set, moved";
        addPropertySchema(list);
    }
};

class AlertPathSchema : public SubtypeByValue<StoredEnum> {
  public:
    AlertPathSchema()
        : SubtypeByValue({.nodetype = nodetype::AlertPath,
                          .tql_class = cls::AlertPath,
                          .origin_type = 5,
                          .properties = kAlertPathRows},
                         prop::method) {
        const auto delay = std::make_shared<MinDelaySchema>(
            prop::repeatInterval, prop::minDelay, kNullable, Defaults<uint32_t>::both(1800));
        delay->kind = "i32, moved";
        addPropertySchema(delay);
    }

    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& chain) const override {
        const PathTexts path = read_path(chain);
        std::string name = fmt::format("{}.{}", path.method, path.destination);
        if (!path.label.empty()) name += '.' + path.label;
        return name;
    }

    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override {
        const bool tree = pattern.wants(prop::treeLabel);
        const bool full = pattern.wants(prop::longLabel);
        if (!tree && !full) return SubtypeByValue::encodeSpecials(object, chain, pattern, out);
        const std::string label = tree_label(object, chain);
        std::string in_full;
        if (full) {
            const std::vector<TreePlace> path = object.path_to_root(object.node_id());
            error::check(path.size() > 1, "Alertpathset with no parent");
            in_full = text_of(object, path[1].id, prop::name).value_or("") + ": " + label;
        }
        add_labels(pattern, out, *siblingName(chain), label, in_full);
    }

    void listTemplates(const SchemaObject& /*parent*/,
                       std::vector<TemplateValues>& out) const override {
        for (const auto& method : tql::find_enumeration(tql::enumeration::AlertMethod)->values)
            out.push_back({tql::value_t(std::make_unique<tql::property_enum_t>(
                prop::method, tql::enumeration::AlertMethod, method.value, 0))});
    }

    void encodeTemplateSpecials(const SchemaObject* /*parent*/, const TemplateValues& values,
                                const tql::pattern_t& pattern,
                                tql::property_map_t& out) const override {
        const uint32_t method = tql::as_enum(*values.front(), tql::enumeration::AlertMethod);
        const std::string label = "Add " + method_text(method) + " path";
        add_labels(pattern, out, fmt::format("template:{}", method), label, label);
    }

  protected:
    [[nodiscard]] uint32_t subtype_of(uint32_t method) const override {
        error::check(method < std::size(kPathSubtypes), "Unknown subtype of alertpath ({})",
                     method);
        return kPathSubtypes[method];
    }
    void check_given(uint32_t method) const override {
        if (method >= std::size(kPathSubtypes))
            fail_illegal_value(fmt::format("Unknown subtype of alertpath ({})", method));
    }

  private:
    [[nodiscard]] static std::string method_text(uint32_t method) {
        return tql::enumeration_text(tql::enumeration::AlertMethod, method);
    }

    /// What is used to reach whom, and the label.
    [[nodiscard]] static std::string tree_label(const SchemaObject& object,
                                                const PropertyChain& chain) {
        const PathTexts path = read_path(chain);
        std::string method = method_text(path.method);
        if (path.method == kCustom) {
            mdb::PropertyNodeId type(prop::customType);
            if (chain.read(0, type) == found_t::value)
                method = text_of(object, type.value, prop::name).value_or(method);
        }
        std::string text = method + " -> " + path.destination;
        if (!path.label.empty()) text += " (" + path.label + ")";
        return text;
    }
};

class AlertPathUsageSchema : public TableSchema<NodetypeSchema> {
  public:
    AlertPathUsageSchema()
        : TableSchema({.nodetype = nodetype::AlertPathUsage,
                       .tql_class = cls::AlertPathUsage,
                       .properties = kAlertPathUsageRows}) {}

    /// By what the path was used for: a node, a check or an exported domain.
    [[nodiscard]] tql::origin_t tqlOrigin(const SchemaObject& object) const override {
        std::optional<tql::origin_t> origin = object.parent_origin();
        error::check(origin.has_value(),
                     "Object {} has no parent in AlertPathUsageSchema::tqlOrigin",
                     object.node_id().to_string());
        switch (origin->type) {
            case 1:
                origin->type = 7;
                break;
            case 3:
                origin->type = 8;
                break;
            case 30:
                break;
            default:
                logger.warning("Warning: Encountered origin {} in AlertPathUsageSchema::tqlOrigin",
                               origin->type);
                origin->type = 36;
        }
        return *origin;
    }
};

class NotificationJobSchema : public SubtypeByValue<StoredEnum> {
  public:
    NotificationJobSchema()
        : SubtypeByValue({.nodetype = nodetype::NotificationJob,
                          .tql_class = cls::NotificationJob,
                          .origin_type = 36,
                          .properties = kNotificationJobRows},
                         prop::alertNotifyJobType) {}

  protected:
    /// A job of an unknown type has nothing but what all jobs have.
    [[nodiscard]] uint32_t subtype_of(uint32_t type) const override {
        return type < std::size(kJobSubtypes) ? kJobSubtypes[type] : 1;
    }
    [[nodiscard]] std::string missing_text() const override { return "Missing property "; }
    void check_given(uint32_t type) const override {
        if (type >= std::size(kJobSubtypes))
            fail_illegal_value(fmt::format("Unknown type of notification job ({})", type));
    }
};

namespace schema {

void declare_alerts(SchemaTable& table) {
    table.registerSchema(std::make_unique<AlertGroupSchema>());
    table.registerSchema(std::make_unique<AlertPathSchema>());
    table.registerSchema(std::make_unique<AlertPathUsageSchema>());
    table.registerSchema(std::make_unique<NotificationJobSchema>());
}

}  // namespace schema

}  // namespace dbcache
