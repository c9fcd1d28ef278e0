#include "dbcache/schema/esxi_check_schema.h"

#include <array>

#include "dbcache/schema/check_rows.h"
#include "dbcache/schema/name_format.h"
#include "dbcache/time_series.h"
#include "error/exception.h"

namespace dbcache {

namespace {

using namespace check_rows;

constexpr uint32_t kContinuousOnly[] = {EsxiCheckSchema::kContinuous};
constexpr uint32_t kEnumeratedOnly[] = {EsxiCheckSchema::kEnumerated};
constexpr uint32_t kMeasured[] = {EsxiCheckSchema::kContinuous, EsxiCheckSchema::kUptime};

/// Green, yellow, red, unknown, no data.
class EsxiStates final : public StateEnumeration {
  public:
    [[nodiscard]] bool exists(const PropertyChain& /*chain*/, uint32_t state) const override {
        return state < 5;
    }
};
constinit const EsxiStates kEsxiStates;

// clang-format off
constexpr PropertyRow kEsxiCheckRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = X},
    {.number = prop::esxiEntityType, .kind = kind_t::string, .flags = K | X},
    {.number = prop::esxiEntityIdent, .kind = kind_t::string, .flags = K | X},
    {.number = prop::esxiCounterKey, .kind = kind_t::string, .flags = K | X},
    {.number = prop::esxiValueModifier, .kind = kind_t::i32, .flags = X},
    kLabel,
    kActive,
    kFrequency,
    kStationLocale,
    {.number = prop::esxiType, .kind = kind_t::enumeration, .flags = X, .enumeration = tql::enumeration::EsxiType, .determines_subtype = true},
    {.number = prop::unit, .kind = kind_t::unit_from_text, .flags = N | X},
    {.number = prop::alertIfAbove, .kind = kind_t::real, .flags = N, .high = 4294967295, .subtypes = kContinuousOnly},
    {.number = prop::warnIfAbove, .kind = kind_t::real, .flags = N, .high = 4294967295, .subtypes = kContinuousOnly},
    {.number = prop::warnIfBelow, .kind = kind_t::real, .flags = N, .high = 4294967295, .subtypes = kMeasured},
    {.number = prop::alertIfBelow, .kind = kind_t::real, .flags = N, .high = 4294967295, .subtypes = kMeasured},
    {.number = prop::stateAction0, .kind = kind_t::state_action, .initial = 0, .states = &kEsxiStates, .subtypes = kEnumeratedOnly},
};

constexpr PropertyRow kEsxiCheckGroupRows[] = {
    {.number = prop::isArray, .kind = kind_t::boolean},
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::esxiObjectType, .kind = kind_t::u32, .initial = 1000},
    {.number = prop::esxiEntityType, .kind = kind_t::string, .flags = K},
    {.number = prop::esxiEntityIdent, .kind = kind_t::string, .flags = K},
    {.number = prop::esxiCounterKey, .kind = kind_t::string},
    {.number = prop::esxiEntityName, .kind = kind_t::string},
    {.number = prop::countEsxiChecks, .kind = kind_t::count, .flags = R},
};
// clang-format on

constexpr SharedRows kEsxiCheckShared[] = {
    {kCommon}, {kRealPlot}, {kForecast, kContinuousOnly}, {kPreferred, kContinuousOnly}};
constexpr SharedRows kGroupShared[] = {{kMarksOnTheWay}};

constexpr ChildRow kEsxiCheckChildren[] = {
    {cls::Plan, nodetype::Plan},
    {cls::CheckAccumulation, nodetype::CheckAccumulation},
    {cls::AlertPathUsage, nodetype::AlertPathUsage},
    {cls::ForecastLock, nodetype::ForecastLock},
    {cls::ForecastModel, nodetype::ForecastModel},
    {cls::ActionConnection, nodetype::ActionConnection},
};

constexpr ChildRow kEsxiCheckGroupChildren[] = {
    {cls::CheckGroup, nodetype::EsxiCheckGroup},
    {cls::Check, nodetype::EsxiCheck},
    {cls::MultiCheck, nodetype::EsxiMultiCheck},
    {cls::Tag, nodetype::Tag},
};

constexpr ChildRow kEsxiRootCheckGroupChildren[] = {
    {cls::CheckGroup, nodetype::EsxiCheckGroup},
    {cls::MultiCheck, nodetype::EsxiMultiCheck},
    {cls::Tag, nodetype::Tag},
};

constexpr auto kEsxiCheckRules = threshold_rules(EsxiCheckSchema::kContinuous);

}  // namespace

// ---- checks ------------------------------------------------------------------------------------

EsxiCheckSchema::EsxiCheckSchema()
    : CheckSchema({.nodetype = nodetype::EsxiCheck,
                   .tql_class = cls::Check,
                   .origin_type = kCheckOrigin,
                   .properties = kEsxiCheckRows,
                   .shared = kEsxiCheckShared,
                   .children = kEsxiCheckChildren,
                   .greater = kEsxiCheckRules},
                  prop::countEsxiChecks) {}

std::optional<std::string> EsxiCheckSchema::siblingName(const PropertyChain& chain) const {
    return own_text(chain, prop::esxiEntityType) + ":" + own_text(chain, prop::esxiEntityIdent) +
           ":" + own_text(chain, prop::esxiCounterKey);
}

/// A stored check without a kind is damaged; it reads as one of a measured value.
uint32_t EsxiCheckSchema::subtypeFromChain(const PropertyChain& chain) const {
    return own_enum(chain, prop::esxiType).value_or(kContinuous);
}

uint32_t EsxiCheckSchema::subtypeFromWork(const WorkArray& work) const {
    return subtype_enum_in(*this, work, prop::esxiType);
}

void EsxiCheckSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                               WorkArray& work, const NodeId& new_parent) const {
    CheckSchema::validate(object, chain, work, new_parent);
    const uint32_t kind = subtypeFromWork(work);
    if (flag_in(*this, work, prop::active) && kind != kContinuous && kind != kEnumerated &&
        kind != kUptime)
        fail_invalid(prop::esxiType);
}

const CheckSchema::Layout* EsxiCheckSchema::layout(uint32_t subtype, uint32_t /*type*/) const {
    switch (subtype) {
        case kContinuous:
            return &continuous_layout();
        case kEnumerated:
            return &enumerated_layout();
        case kUptime:
            return &uptime_layout();
        default:
            return nullptr;  // never active, so without a series
    }
}

EsxiCheckSchema::Labels EsxiCheckSchema::labels(const PropertyChain& chain) const {
    const std::string name = own_text(chain, prop::name);
    const std::string label = read_text(chain, *this, prop::label);
    return {labelled(label, name), labelled(label, check_long_label(chain, name))};
}

// ---- groups ------------------------------------------------------------------------------------

EsxiCheckGroupSchema::EsxiCheckGroupSchema()
    : TableSchema({.nodetype = nodetype::EsxiCheckGroup,
                   .tql_class = cls::CheckGroup,
                   .origin_type = kCheckOrigin,
                   .properties = kEsxiCheckGroupRows,
                   .shared = kGroupShared,
                   .children = kEsxiCheckGroupChildren}) {}

std::optional<std::string> EsxiCheckGroupSchema::siblingName(const PropertyChain& chain) const {
    const std::string entity =
        own_text(chain, prop::esxiEntityType) + ":" + own_text(chain, prop::esxiEntityIdent);
    std::string name = own_text(chain, prop::name);
    return entity == ":" ? std::move(name) : name + ":" + entity;
}

void EsxiCheckGroupSchema::encodeSpecials(const SchemaObject& /*object*/,
                                          const PropertyChain& chain, const tql::pattern_t& pattern,
                                          tql::property_map_t& out) const {
    if (!wants_labels(pattern)) return;
    const std::string name = own_text(chain, prop::name);
    add_labels(pattern, out, siblingName(chain).value_or(""), name, group_long_label(chain, name));
}

void EsxiCheckGroupSchema::account(const SchemaObject& /*object*/, const WorkArray& /*work*/,
                                   UseMap& /*use*/) const {}

EsxiRootCheckGroupSchema::EsxiRootCheckGroupSchema()
    : EsxiCheckGroupSchema({.nodetype = nodetype::EsxiRootCheckGroup,
                            .tql_class = cls::CheckGroup,
                            .origin_type = kCheckOrigin,
                            .properties = kEsxiCheckGroupRows,
                            .shared = kGroupShared,
                            .children = kEsxiRootCheckGroupChildren}) {}

}  // namespace dbcache
