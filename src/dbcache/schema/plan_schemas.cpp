#include "dbcache/schema/plan_schemas.h"

#include <fmt/format.h>

#include "dbcache/class_table.h"
#include "dbcache/schema_table.h"
#include "dbcache/special_kinds.h"
#include "mdb/property_types.h"
#include "tql/names.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

constexpr uint32_t kDowntimeOrigin = 4;

constexpr uint32_t kMonthPlanner[] = {cls::MonthPlanner};
constexpr uint32_t kWeekPlanner[] = {cls::WeekPlanner};
constexpr uint32_t kDayPlanner[] = {cls::DayPlanner};
constexpr uint32_t kEvent[] = {cls::Event};
constexpr uint32_t kExpectedEvent[] = {cls::ExpectedEvent};
constexpr uint32_t kUnexpectedEvent[] = {cls::UnexpectedEvent};

// clang-format off
constexpr PropertyRow inherits_from(std::span<const uint32_t> classes) {
    return {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = classes};
}
constexpr PropertyRow kInheritsMark = {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R, .member = marks_inheriting};

constexpr PropertyRow kPlanRows[] = {
    {.number = prop::name, .kind = kind_t::identifier, .flags = K},
    {.number = prop::description, .kind = kind_t::string},
    {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R},
};

constexpr ChildRow kPlanChildren[] = {
    {cls::WeekPlanner, nodetype::WeekPlanner},
    {cls::ExpectedEvent, nodetype::ExpectedEvent},
    {cls::UnexpectedEvent, nodetype::UnexpectedEvent},
    {cls::MonthPlanner, nodetype::MonthPlanner},
};

constexpr PropertyRow kMonthPlannerRows[] = {
    inherits_from(kMonthPlanner),
    kInheritsMark,
    {.number = prop::name, .kind = kind_t::identifier, .flags = K},
    {.number = prop::order, .kind = kind_t::i32, .flags = K},
};

constexpr ChildRow kMonthPlannerChildren[] = {
    {cls::DayPlanner, nodetype::DayPlanner},
    {cls::WeekPlanner, nodetype::WeekPlanner},
};

constexpr PropertyRow kWeekPlannerRows[] = {
    inherits_from(kWeekPlanner),
    kInheritsMark,
    {.number = prop::name, .kind = kind_t::identifier, .flags = K, .initial = "week"},
};

constexpr ChildRow kWeekPlannerChildren[] = {{cls::DayPlanner, nodetype::DayPlanner}};

constexpr PropertyRow kDayPlannerRows[] = {
    inherits_from(kDayPlanner),
    kInheritsMark,
    {.number = prop::name, .kind = kind_t::identifier, .flags = K},
};

constexpr ChildRow kDayPlannerChildren[] = {{cls::Event, nodetype::Event}};

constexpr PropertyRow kEventRows[] = {
    inherits_from(kEvent),
    kInheritsMark,
    {.number = prop::startTime, .kind = kind_t::date, .flags = K},
    {.number = prop::duration, .kind = kind_t::date, .flags = K},
    {.number = prop::active, .kind = kind_t::boolean, .initial = true},
};

constexpr PropertyRow kExpectedEventRows[] = {
    inherits_from(kExpectedEvent),
    kInheritsMark,
    {.number = prop::startTime, .kind = kind_t::date, .flags = K},
    {.number = prop::endTime, .kind = kind_t::date, .flags = K},
    {.number = prop::active, .kind = kind_t::boolean, .initial = true},
    {.number = prop::comment, .kind = kind_t::string, .flags = N},
    {.number = prop::user, .kind = kind_t::last_user, .flags = N | R},
};

constexpr PropertyRow kUnexpectedEventRows[] = {
    inherits_from(kUnexpectedEvent),
    kInheritsMark,
    {.number = prop::endTime, .kind = kind_t::date, .flags = K},
    {.number = prop::active, .kind = kind_t::boolean, .initial = true},
    {.number = prop::comment, .kind = kind_t::string, .flags = N},
    {.number = prop::user, .kind = kind_t::last_user, .flags = N | R},
};
// clang-format on

/// Behind the stored properties of a class that can inherit.
void add_has_inherits(const PropertyChain& chain, const tql::pattern_t& pattern,
                      tql::property_map_t& out) {
    if (pattern.wants(prop::hasInherits))
        tql::add<tql::property_boolean_t>(out, prop::hasInherits, chain.hasParent(), kComputed);
}

/// A part of a plan.
template <class Base = NodetypeSchema>
class PlanPart : public TableSchema<Base> {
  public:
    using TableSchema<Base>::TableSchema;
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override {
        TableSchema<Base>::encodeSpecials(object, chain, pattern, out);
        add_has_inherits(chain, pattern, out);
    }
};

/// The values of two numbers, joined by a point; none while either is missing.
template <class First, class Second>
std::optional<std::string> joined(const PropertyChain& chain, uint32_t first, uint32_t second) {
    First head(first);
    Second tail(second);
    if (chain.read(0, head) != found_t::value || chain.read(0, tail) != found_t::value)
        return std::nullopt;
    return fmt::format("{}.{}", head.value, tail.value);
}

}  // namespace

class PlanSchema : public TableSchema<NodetypeSchema> {
  public:
    PlanSchema()
        : TableSchema({.nodetype = nodetype::Plan,
                       .tql_class = cls::Plan,
                       .properties = kPlanRows,
                       .children = kPlanChildren,
                       .sibling_name = prop::name}) {}
};

class MonthPlannerSchema : public PlanPart<> {
  public:
    MonthPlannerSchema()
        : PlanPart({.nodetype = nodetype::MonthPlanner,
                    .tql_class = cls::MonthPlanner,
                    .properties = kMonthPlannerRows,
                    .children = kMonthPlannerChildren}) {}
    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& chain) const override {
        return joined<mdb::PropertyString, mdb::PropertyInt32>(chain, prop::name, prop::order);
    }
};

class WeekPlannerSchema : public PlanPart<> {
  public:
    WeekPlannerSchema()
        : PlanPart({.nodetype = nodetype::WeekPlanner,
                    .tql_class = cls::WeekPlanner,
                    .properties = kWeekPlannerRows,
                    .children = kWeekPlannerChildren,
                    .sibling_name = prop::name}) {}
};

class DayPlannerSchema : public PlanPart<> {
  public:
    DayPlannerSchema()
        : PlanPart({.nodetype = nodetype::DayPlanner,
                    .tql_class = cls::DayPlanner,
                    .properties = kDayPlannerRows,
                    .children = kDayPlannerChildren,
                    .sibling_name = prop::name}) {}
};

class EventSchema : public PlanPart<> {
  public:
    EventSchema()
        : PlanPart(
              {.nodetype = nodetype::Event, .tql_class = cls::Event, .properties = kEventRows}) {}
    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& chain) const override {
        return joined<mdb::PropertyDate, mdb::PropertyDate>(chain, prop::startTime, prop::duration);
    }
};

class ExpectedEventSchema : public PlanPart<> {
  public:
    ExpectedEventSchema()
        : PlanPart({.nodetype = nodetype::ExpectedEvent,
                    .tql_class = cls::ExpectedEvent,
                    .origin_type = kDowntimeOrigin,
                    .properties = kExpectedEventRows}) {}
    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& chain) const override {
        return joined<mdb::PropertyDate, mdb::PropertyDate>(chain, prop::startTime, prop::endTime);
    }
};

class UnexpectedEventSchema : public PlanPart<SingletonSchema> {
  public:
    UnexpectedEventSchema()
        : PlanPart({.nodetype = nodetype::UnexpectedEvent,
                    .tql_class = cls::UnexpectedEvent,
                    .origin_type = kDowntimeOrigin,
                    .properties = kUnexpectedEventRows}) {}
    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& /*chain*/) const override {
        return "singleton";
    }
};

namespace schema {

void declare_plans(SchemaTable& table) {
    table.registerSchema(std::make_unique<PlanSchema>());
    table.registerSchema(std::make_unique<MonthPlannerSchema>());
    table.registerSchema(std::make_unique<WeekPlannerSchema>());
    table.registerSchema(std::make_unique<DayPlannerSchema>());
    table.registerSchema(std::make_unique<EventSchema>());
    table.registerSchema(std::make_unique<ExpectedEventSchema>());
    table.registerSchema(std::make_unique<UnexpectedEventSchema>());
}

}  // namespace schema

}  // namespace dbcache
