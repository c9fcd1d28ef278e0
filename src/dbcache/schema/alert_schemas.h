// Who is told of what: groups of alert paths, the ways of reaching a user, when a path was last
// used for an object, and the notifications that wait to go out. What they mean at run time is
// decided by the siblings that send alerts.
#pragma once

namespace dbcache {
class SchemaTable;
}

namespace dbcache::schema {

/// AlertGroup, AlertPath, AlertPathUsage and NotificationJob.
void declare_alerts(SchemaTable& table);

}  // namespace dbcache::schema
