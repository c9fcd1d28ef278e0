// What the server knows of MIBs: the objects that SNMP checks point at, modules and types.
#pragma once

#include "dbcache/class_table.h"

namespace dbcache {

/// Values of snmpType that decide on the kind of a check.
inline constexpr uint32_t kSnmpEnumerated = 12;
inline constexpr uint32_t kSnmpTimeTicks = 14;
inline constexpr uint32_t kSnmpTimeStamp = 15;

/// A class of the MIB whose objects are called by their name.
class MibNamedSchema : public TableSchema<NodetypeSchema> {
  public:
    using TableSchema::TableSchema;
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
};

/// One MIB object: OID, type and unit.
class MibObjectSchema final : public MibNamedSchema {
  public:
    MibObjectSchema();
    /// The OID.
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
};

class MibModuleSchema final : public MibNamedSchema {
  public:
    MibModuleSchema();
};

class MibModuleObjectSchema final : public MibNamedSchema {
  public:
    MibModuleObjectSchema();
};

class MibModuleTypeSchema final : public MibNamedSchema {
  public:
    MibModuleTypeSchema();
};

/// A named value of an enumerated object or type.
class MibTypeEnumSchema final : public TableSchema<NodetypeSchema> {
  public:
    MibTypeEnumSchema();
    /// The value.
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
};

}  // namespace dbcache
