#include "dbcache/schema/declare_all.h"

#include <memory>

#include "dbcache/schema/cluster_schemas.h"
#include "dbcache/schema/tree_schemas.h"
#include "dbcache/schema_table.h"

namespace dbcache::schema {

void declare_all(SchemaTable& table) {
    table.registerSchema(std::make_unique<DomainSchema>());
    table.registerSchema(std::make_unique<NodeSchema>());
    table.registerSchema(std::make_unique<NodeInfoGroupSchema>());
    table.registerSchema(std::make_unique<NodeInfoLineSchema>());
    table.registerSchema(std::make_unique<ClusterConfigSchema>());
    table.registerSchema(std::make_unique<ClusterServerConfigSchema>());
    table.seal();
}

}  // namespace dbcache::schema
