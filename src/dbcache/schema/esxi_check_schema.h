// Checks of a virtualization host, read from it as a whole, and the groups that they stand in.
#pragma once

#include "dbcache/schema/check_schema.h"

namespace dbcache {

class EsxiCheckSchema final : public CheckSchema {
  public:
    /// Values of esxiType.
    enum subtype_t : uint32_t { kContinuous = 0, kEnumerated = 2, kUptime = 3 };

    EsxiCheckSchema();
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
    /// Refuses an active check of a kind that no series is made for.
    void validate(const SchemaObject& object, const PropertyChain& chain, WorkArray& work,
                  const NodeId& new_parent) const override;
    [[nodiscard]] uint32_t subtypeFromChain(const PropertyChain& chain) const override;
    [[nodiscard]] uint32_t subtypeFromWork(const WorkArray& work) const override;

  protected:
    [[nodiscard]] Labels labels(const PropertyChain& chain) const override;
    [[nodiscard]] const Layout* layout(uint32_t subtype, uint32_t type) const override;
};

/// A kind of thing on the host, or one thing.
class EsxiCheckGroupSchema : public TableSchema<NodetypeSchema> {
  public:
    EsxiCheckGroupSchema();
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    /// All that comes from below goes on upward.
    void account(const SchemaObject& object, const WorkArray& work, UseMap& use) const override;

  protected:
    using TableSchema::TableSchema;
};

/// A group directly under a node.
class EsxiRootCheckGroupSchema final : public EsxiCheckGroupSchema {
  public:
    EsxiRootCheckGroupSchema();
};

}  // namespace dbcache
