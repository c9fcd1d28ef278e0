// The settings of a cluster of servers: one folder under the root, with the servers and the
// operators' own ways of sending alerts in it.
#pragma once

#include "dbcache/class_table.h"

namespace dbcache {

class ClusterConfigSchema : public TableSchema<SingletonSchema> {
  public:
    ClusterConfigSchema();
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
};

class ClusterServerConfigSchema : public TableSchema<NodetypeSchema> {
  public:
    ClusterServerConfigSchema();
};

/// A way of sending alerts that an operator has added.
class CustomAlertPathConfigSchema : public TableSchema<NodetypeSchema> {
  public:
    CustomAlertPathConfigSchema();
};

}  // namespace dbcache
