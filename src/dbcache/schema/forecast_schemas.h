// What the forecasting sibling keeps below a check: who works on it, the fitted model and how well
// the model does.
#pragma once

namespace dbcache {
class SchemaTable;
}

namespace dbcache::schema {

/// ForecastLock, ForecastModel and ForecastEval.
void declare_forecasts(SchemaTable& table);

}  // namespace dbcache::schema
