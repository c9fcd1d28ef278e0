// Checks that the agent on a host makes, and the groups that they stand in. What a check has hangs
// on its kind; an advanced log check is another one in a group of forwarded logs or of the service
// manager's journal.
#pragma once

#include "dbcache/schema/check_schema.h"

namespace dbcache {

class AgentCheckSchema final : public CheckSchema {
  public:
    enum subtype_t : uint32_t {
        kInteger = 0,
        kFloating = 1,
        kStates = 2,
        kAction = 3,
        kLog = 4,
        kForwardLog = 5,
        kUptime = 6,
        kSystemdLog = 7,
    };

    AgentCheckSchema();
    /// Thresholds, absolute or in per cent of the range.
    void validate(const SchemaObject& object, const PropertyChain& chain, WorkArray& work,
                  const NodeId& new_parent) const override;
    /// Touches the node's configuration when the agent has to learn of the change.
    void afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& context,
                     WorkArray& work) const override;
    [[nodiscard]] uint32_t subtypeFromChain(const PropertyChain& chain) const override;
    /// A fatal assertion: the place of the check counts as well.
    [[nodiscard]] uint32_t subtypeFromWork(const WorkArray& work) const override;
    [[nodiscard]] uint32_t subtype(const SchemaObject& object,
                                   const WorkArray& work) const override;

  protected:
    [[nodiscard]] Labels labels(const PropertyChain& chain) const override;
    [[nodiscard]] const Layout* layout(uint32_t subtype, uint32_t type) const override;
    [[nodiscard]] uint32_t type_property() const override;
    /// A request to run the action sets `fire`.
    void before_series(WorkArray& work, uint32_t subtype) const override;
};

class AgentCheckGroupSchema final : public TableSchema<NodetypeSchema> {
  public:
    AgentCheckGroupSchema();
    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    /// Groups of processes and of logs offer the check that is made in them.
    bool childrenHook(ObjectHandler& handler, const tql::pattern_t& pattern,
                      tqlengine::HandlerList& out) const override;
    /// All that comes from below goes on upward.
    void account(const SchemaObject& object, const WorkArray& work, UseMap& use) const override;
};

/// The group `id` is a group of logs with this agent id, under the node's group of logs.
[[nodiscard]] bool is_real_log_group(const PropertyChain& chain, const NodeId& id,
                                     std::string_view agent_id);
/// The group `id` has this agent id and stands directly under a node.
[[nodiscard]] bool is_top_group(const PropertyChain& chain, const NodeId& id,
                                std::string_view agent_id);

/// The labels of the states of an agent check of this kind, by index; empty texts and indices
/// beyond the end are no states.
[[nodiscard]] std::span<const std::string_view> agent_state_labels(uint32_t check_type);

/// The rules between the thresholds of a measured agent check, given as values or in per cent of
/// its range. `work` is that of a class with the eight thresholds, in `subtype`; a range that the
/// class doesn't store is unknown. Throws errors::tql with code 10.
void check_agent_thresholds(const NodetypeSchema& schema, const WorkArray& work, uint32_t subtype);

}  // namespace dbcache
