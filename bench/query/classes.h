// The classes of the benchmark of queries: domains and nodes on the way down, checks below nodes.
// All three have the same properties for people, so that one question can ask for those of any.
#pragma once

#include "dbcache/schema_table.h"

namespace bench {

void declare_query_classes(dbcache::SchemaTable& table);

}  // namespace bench
