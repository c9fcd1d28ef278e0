// NetCheck: a service on the network that a prober asks now and then. Its subtype is the kind of
// service, and each kind is offered as a template.
#pragma once

#include "dbcache/schema/check_schema.h"

namespace dbcache {

class NetCheckSchema final : public CheckSchema {
  public:
    NetCheckSchema();
    /// The service, in brackets.
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
    void encodeTemplateSpecials(const SchemaObject* parent, const TemplateValues& values,
                                const tql::pattern_t& pattern,
                                tql::property_map_t& out) const override;
    /// One for each service that this server knows by name.
    void listTemplates(const SchemaObject& parent, std::vector<TemplateValues>& out) const override;
    /// Refuses a check that isn't active.
    void validate(const SchemaObject& object, const PropertyChain& chain, WorkArray& work,
                  const NodeId& new_parent) const override;
    [[nodiscard]] uint32_t subtypeFromChain(const PropertyChain& chain) const override;
    [[nodiscard]] uint32_t subtypeFromWork(const WorkArray& work) const override;
    /// One, active or not.
    void getUse(const WorkArray& work, UseMap& use) const override;

  protected:
    [[nodiscard]] Labels labels(const PropertyChain& chain) const override;
    [[nodiscard]] const Layout* layout(uint32_t subtype, uint32_t type) const override;
    [[nodiscard]] std::vector<uint8_t> computed_unit(const PropertyChain& chain) const override;
};

/// The label of the net check with this record: the name asked for and the service.
[[nodiscard]] std::string net_check_label(const PropertyChain& chain);

/// Name and value of one setting of a custom net check.
class CustomParameterSchema final : public TableSchema<NodetypeSchema> {
  public:
    CustomParameterSchema();
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    void encodeTemplateSpecials(const SchemaObject* parent, const TemplateValues& values,
                                const tql::pattern_t& pattern,
                                tql::property_map_t& out) const override;
    /// One under a custom net check.
    void listTemplates(const SchemaObject& parent, std::vector<TemplateValues>& out) const override;
};

}  // namespace dbcache
