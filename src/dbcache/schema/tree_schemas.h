// The classes that the tree is made of: domains, nodes and the inventory that a node reports.
#pragma once

#include "dbcache/class_table.h"

namespace dbcache {

/// The root and every domain below it.
class DomainSchema : public TableSchema<SingletonIfChildOfMountPointSchema> {
  public:
    DomainSchema();
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    /// All that comes from below goes on upward.
    void account(const SchemaObject& object, const WorkArray& work, UseMap& use) const override;
};

/// A monitored host. Its checks stand in four groups without storage.
class NodeSchema : public TableSchema<NodetypeSchema> {
  public:
    NodeSchema();
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    /// Marks the agent's configuration as touched.
    void afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& context,
                     WorkArray& work) const override;
    void getUse(const WorkArray& work, UseMap& use) const override;
    /// Adds what changes in the class of the node.
    void account(const SchemaObject& object, const WorkArray& work, UseMap& use) const override;
};

/// A group of inventory lines; nests.
class NodeInfoGroupSchema : public TableSchema<NodetypeSchema> {
  public:
    NodeInfoGroupSchema();
};

/// One line of inventory.
class NodeInfoLineSchema : public OrderSiblingEncoder {
  public:
    NodeInfoLineSchema();
};

}  // namespace dbcache
