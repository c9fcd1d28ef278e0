// Tells the agent on a host that its configuration has changed: the flag for it stands in the
// node's agent status, which the agent's next visit reads.
#pragma once

#include "dbcache/class_table.h"

namespace dbcache {

/// Marks the configuration of the node that `changed` is, or stands under, as touched. For
/// afterUpdate hooks: the flag is written in the transaction of the update. Nothing happens outside
/// of nodes, for a node that has no agent status yet (its agent fetches everything anyway), and
/// when the update comes from the sibling that tells what the agent itself has reported.
void touch_agent_config(ObjectHandler& changed, tqlengine::RequestContext& context);

/// What the server knows of the agent on a node.
class NodeAgentStatusSchema final : public TableSchema<SingletonSchema> {
  public:
    NodeAgentStatusSchema();
};

}  // namespace dbcache
