#include "dbcache/schema/agent_config.h"

#include <fmt/format.h>

#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/schema/check_schema.h"
#include "log/log.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tqlengine/request_context.h"
#include "tqlengine/update_watcher.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

constexpr uint32_t kNodeOrigin = 1;

// clang-format off
constexpr PropertyRow kNodeAgentStatusRows[] = {
    {.number = prop::agentReconfig, .kind = kind_t::boolean, .initial = true},
    {.number = prop::agentRescan, .kind = kind_t::boolean, .initial = true},
    {.number = prop::keyPrime, .kind = kind_t::big_number, .flags = N},
    {.number = prop::keyGenerator, .kind = kind_t::big_number, .flags = N},
    {.number = prop::keySession, .kind = kind_t::string, .flags = N},
    {.number = prop::sessionKeyExpire, .kind = kind_t::date, .flags = N},
    {.number = prop::packageId, .kind = kind_t::u32, .flags = N},
    {.number = prop::majorVersion, .kind = kind_t::u32, .flags = N},
    {.number = prop::minorVersion, .kind = kind_t::u32, .flags = N},
    {.number = prop::releaseVersion, .kind = kind_t::u32, .flags = N},
    {.number = prop::buildno, .kind = kind_t::u32, .flags = N},
    {.number = prop::agentCaps, .kind = kind_t::u32, .flags = N},
    {.number = prop::hasDownloaded, .kind = kind_t::u32, .flags = N},
    {.number = prop::hasDownloadedDate, .kind = kind_t::date, .flags = N},
    {.number = prop::failedBuildno, .kind = kind_t::u32, .flags = N},
};
// clang-format on

ObjectHandlerRef node_above(ObjectHandler& object) {
    tqlengine::WayUp at{ObjectHandlerRef(&object)};
    while (at && at->nodetype() != nodetype::Node) at.up();
    return at.ref();
}

bool is_flagged(const ObjectHandler& status) {
    return own_flag(InheritanceChain(status.store(), status.node_id(), status.location()),
                    prop::agentReconfig);
}

void flag(ObjectHandler& status, tqlengine::RequestContext& context) {
    std::vector<tql::value_t> values;
    values.push_back(std::make_unique<tql::property_boolean_t>(prop::agentReconfig, true));
    tqlengine::TqlUpdateWatcher watcher(context.engine, tqlengine::HandlerRef(&status),
                                        tqlengine::watch_t::existing);
    status.tqlUpdate({status.tqlVersion(), context.new_version, values, 0, context});
}

}  // namespace

NodeAgentStatusSchema::NodeAgentStatusSchema()
    : TableSchema({.nodetype = nodetype::NodeAgentStatus,
                   .tql_class = cls::NodeAgentStatus,
                   .origin_type = kNodeOrigin,
                   .properties = kNodeAgentStatusRows}) {}

void touch_agent_config(ObjectHandler& changed, tqlengine::RequestContext& context) {
    if (context.sender == queues::queue_t::gsat) return;
    const ObjectHandlerRef node = node_above(changed);
    if (!node || !node->is_stored()) return;
    const std::string process = context.sender == queues::queue_t::none
                                    ? std::string()
                                    : ". Process: " + queues::queue_name(context.sender);
    logger.debug("Touched config for node {} because of {} {}", node->node_id(),
                 fmt::format("{} {}", tql::class_name(changed.class_number()), changed.node_id()),
                 process);
    tqlengine::HandlerList statuses;
    node->tqlChildrenHandlers(statuses, tql::pattern_t(cls::NodeAgentStatus));
    for (const tqlengine::HandlerRef& found : statuses) {
        auto* status = dynamic_cast<ObjectHandler*>(found.get());
        if (status != nullptr && !is_flagged(*status)) flag(*status, context);
    }
}

}  // namespace dbcache
