// Plans: when an object is expected to be down. A plan holds planners, which hold the events of a
// day, and downtimes entered by people; each of them can follow one of the same class elsewhere.
#pragma once

namespace dbcache {
class SchemaTable;
}

namespace dbcache::schema {

/// Plan, MonthPlanner, WeekPlanner, DayPlanner, Event, ExpectedEvent and UnexpectedEvent.
void declare_plans(SchemaTable& table);

}  // namespace dbcache::schema
