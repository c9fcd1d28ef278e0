// What is worked out from checks: the total of one check over a period, and multi checks, whose
// series add up values of other checks.
#pragma once

#include "dbcache/class_table.h"
#include "tql/names.h"

namespace dbcache {

/// The running total of a check over a period. A rolling one has a continuous series, one that
/// begins anew with each period that of an uptime.
class CheckAccumulationSchema final : public TableSchema<NodetypeSchema> {
  public:
    CheckAccumulationSchema();
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    void encodeTemplateSpecials(const SchemaObject* parent, const TemplateValues& values,
                                const tql::pattern_t& pattern,
                                tql::property_map_t& out) const override;
    void listTemplates(const SchemaObject& parent, std::vector<TemplateValues>& out) const override;
    /// It has a series from its creation on.
    void afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& context,
                     WorkArray& work) const override;
    [[nodiscard]] uint32_t tsdbGetDataType(const PropertyChain& chain,
                                           uint32_t property) const override;
};

/// The name of a period with what follows it: "1 week", "1 week rolling".
[[nodiscard]] std::string accumulation_name(uint32_t period, bool rolling);

class MultiCheckSchema : public TableSchema<NodetypeSchema> {
  public:
    MultiCheckSchema() : MultiCheckSchema(nodetype::MultiCheck) {}
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    void encodeTemplateSpecials(const SchemaObject* parent, const TemplateValues& values,
                                const tql::pattern_t& pattern,
                                tql::property_map_t& out) const override;
    void listTemplates(const SchemaObject& parent, std::vector<TemplateValues>& out) const override;

  protected:
    explicit MultiCheckSchema(uint32_t own_nodetype);
    /// By itself the name.
    [[nodiscard]] virtual std::string long_label(const PropertyChain& chain,
                                                 const std::string& name) const;
};

/// One in a group: its long label names the groups above.
class GroupedMultiCheckSchema : public MultiCheckSchema {
  protected:
    using MultiCheckSchema::MultiCheckSchema;
    [[nodiscard]] std::string long_label(const PropertyChain& chain,
                                         const std::string& name) const override;
};

class AgentMultiCheckSchema final : public GroupedMultiCheckSchema {
  public:
    AgentMultiCheckSchema() : GroupedMultiCheckSchema(nodetype::AgentMultiCheck) {}
};
class NetMultiCheckSchema final : public MultiCheckSchema {
  public:
    NetMultiCheckSchema() : MultiCheckSchema(nodetype::NetMultiCheck) {}
};
class SnmpMultiCheckSchema final : public GroupedMultiCheckSchema {
  public:
    SnmpMultiCheckSchema() : GroupedMultiCheckSchema(nodetype::SnmpMultiCheck) {}
};
class EsxiMultiCheckSchema final : public GroupedMultiCheckSchema {
  public:
    EsxiMultiCheckSchema() : GroupedMultiCheckSchema(nodetype::EsxiMultiCheck) {}
};

/// One series of a multi check.
class SeriesSchema final : public TableSchema<NodetypeSchema> {
  public:
    SeriesSchema();
};

class SumExpressionSchema final : public TableSchema<NodetypeSchema> {
  public:
    SumExpressionSchema();
};

class CheckExpressionSchema final : public TableSchema<NodetypeSchema> {
  public:
    CheckExpressionSchema();
};

class MultiCheckExpressionSchema final : public TableSchema<NodetypeSchema> {
  public:
    MultiCheckExpressionSchema();
};

}  // namespace dbcache
