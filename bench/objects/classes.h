// The classes of the benchmark: folders nest, and carry a counter and a mark for what is below
// them; things count while they are active, checks are marked while they are.
#pragma once

#include "dbcache/schema_table.h"

namespace bench {

void declare_classes(dbcache::SchemaTable& table);

}  // namespace bench
