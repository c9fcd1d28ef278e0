// The small classes that stand below checks and their groups: log rules, remedies, tags.
#pragma once

#include "dbcache/class_table.h"

namespace dbcache {

/// One rule of a log check. What it does with a matching line is its subtype.
class LogCheckRuleSchema final : public OrderSiblingEncoder {
  public:
    LogCheckRuleSchema();
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    /// The agent applies the rules, so it has to learn of each change.
    void afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& context,
                     WorkArray& work) const override;
    [[nodiscard]] uint32_t subtypeFromChain(const PropertyChain& chain) const override;
    [[nodiscard]] uint32_t subtypeFromWork(const WorkArray& work) const override;
};

/// A comment between the rules.
class LogCheckRuleCommentSchema final : public OrderSiblingEncoder {
  public:
    LogCheckRuleCommentSchema();
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
};

/// Links a check to the agent action that is run as its remedy.
class ActionConnectionSchema final : public OrderSiblingEncoder {
  public:
    ActionConnectionSchema();
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
};

/// A label by which groups of checks are told apart.
class TagSchema final : public TableSchema<NodetypeSchema> {
  public:
    TagSchema();
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
};

/// Gives a group a tag while an enumerated check is in a state.
class EnumCheckTagRuleSchema final : public TableSchema<NodetypeSchema> {
  public:
    EnumCheckTagRuleSchema();
};

/// Such a rule that holds for a group now.
class TagRuleMatchSchema final : public TableSchema<NodetypeSchema> {
  public:
    TagRuleMatchSchema();
};

}  // namespace dbcache
