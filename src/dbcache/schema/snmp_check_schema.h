// Checks of values that a host answers by SNMP, and the groups that they stand in. What a check
// has hangs on the type of the MIB object that it points at.
#pragma once

#include "dbcache/schema/check_schema.h"

namespace dbcache {

class SnmpCheckSchema final : public CheckSchema {
  public:
    enum subtype_t : uint32_t { kContinuous = 0, kEnumerated = 1, kUptime = 2 };

    SnmpCheckSchema();
    /// The OID of the value on the host.
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
    [[nodiscard]] uint32_t subtypeFromChain(const PropertyChain& chain) const override;
    /// A fatal assertion: the MIB object has to be looked at.
    [[nodiscard]] uint32_t subtypeFromWork(const WorkArray& work) const override;
    [[nodiscard]] uint32_t subtype(const SchemaObject& object,
                                   const WorkArray& work) const override;

  protected:
    [[nodiscard]] Labels labels(const PropertyChain& chain) const override;
    [[nodiscard]] const Layout* layout(uint32_t subtype, uint32_t type) const override;
    /// That of the MIB object.
    [[nodiscard]] std::vector<uint8_t> computed_unit(const PropertyChain& chain) const override;
};

/// One table of a MIB or one row of it, which its tag tells apart.
class SnmpCheckGroupSchema final : public TableSchema<NodetypeSchema> {
  public:
    enum subtype_t : uint32_t { kWhole = 0, kRow = 1, kReserved = 2 };

    SnmpCheckGroupSchema();
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    [[nodiscard]] uint32_t subtypeFromChain(const PropertyChain& chain) const override;
    [[nodiscard]] uint32_t subtypeFromWork(const WorkArray& work) const override;
    /// All that comes from below goes on upward.
    void account(const SchemaObject& object, const WorkArray& work, UseMap& use) const override;
};

}  // namespace dbcache
