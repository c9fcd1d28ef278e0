#include "dbcache/schema/forecast_schemas.h"

#include "dbcache/schema/subtype_by_value.h"
#include "dbcache/schema_table.h"
#include "tql/enumerations.h"

namespace dbcache {

namespace {

// Models that forecast; the others have only the time of their estimation.
constexpr uint32_t kFitted[] = {1};

// clang-format off
constexpr PropertyRow kForecastLockRows[] = {
    {.number = prop::forecastWorkerNode, .kind = kind_t::u32},
};

constexpr PropertyRow kForecastModelRows[] = {
    {.number = prop::forecastLastModelEst, .kind = kind_t::date, .initial = 0},
    {.number = prop::forecastModel, .kind = kind_t::enumeration, .initial = 0, .enumeration = tql::enumeration::ForecastModel, .determines_subtype = true},
    {.number = prop::forecastSigClass, .kind = kind_t::enumeration, .initial = 0, .enumeration = tql::enumeration::ForecastSigClass, .subtypes = kFitted},
    {.number = prop::forecastOrder, .kind = kind_t::u32, .subtypes = kFitted},
    {.number = prop::forecastSigFitLen, .kind = kind_t::u32, .subtypes = kFitted},
    {.number = prop::forecastSampleTime, .kind = kind_t::real, .subtypes = kFitted},
    {.number = prop::forecastLastForecTime, .kind = kind_t::real, .subtypes = kFitted},
};

constexpr ChildRow kForecastModelChildren[] = {{cls::ForecastEval, nodetype::ForecastEval}};

constexpr PropertyRow kForecastEvalRows[] = {
    {.number = prop::forecastLastModelEval, .kind = kind_t::date, .initial = 0},
    {.number = prop::forecastLastWeightedError, .kind = kind_t::real},
};
// clang-format on

}  // namespace

class ForecastModelSchema : public SubtypeByValue<StoredEnum, SingletonSchema> {
  public:
    ForecastModelSchema()
        : SubtypeByValue({.nodetype = nodetype::ForecastModel,
                          .tql_class = cls::ForecastModel,
                          .properties = kForecastModelRows,
                          .children = kForecastModelChildren},
                         prop::forecastModel) {}
};

namespace schema {

void declare_forecasts(SchemaTable& table) {
    // A check has one lock, and a model one evaluation: neither has a key.
    table.registerSchema(std::make_unique<TableSchema<SingletonSchema>>(
        ClassTable{.nodetype = nodetype::ForecastLock,
                   .tql_class = cls::ForecastLock,
                   .properties = kForecastLockRows}));
    table.registerSchema(std::make_unique<ForecastModelSchema>());
    table.registerSchema(std::make_unique<TableSchema<SingletonSchema>>(
        ClassTable{.nodetype = nodetype::ForecastEval,
                   .tql_class = cls::ForecastEval,
                   .properties = kForecastEvalRows}));
}

}  // namespace schema

}  // namespace dbcache
