#include "tqlengine/detail/evaluate.h"

#include "error/exception.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tqlengine/detail/lead.h"
#include "tqlengine/detail/walk.h"

namespace tqlengine::detail {

ResultNodePtr evaluateWithLeads(TqlObjectHandler& handler, const tql::pattern_t& pattern,
                                const SelectLimits& limits, SelectStatistics& statistics,
                                ResultNodePool& nodes) {
    Walk walk(limits, statistics, nodes);
    TqlIdResolver* resolver = handler.tqlIdResolver();
    if (!resolver) return walk.match(handler, pattern);

    const tql::id_t origin = handler.tqlId();
    LeadScan scan(*resolver, origin);
    const bool answered = scan.scan(pattern);
    const size_t parts = scan.leads().size() + (answered ? 0 : 1);
    if (parts > 1 && needs_one_walk(pattern)) return walk.match(handler, pattern);
    ResultNodePtr result;
    for (const auto& lead : scan.leads()) {
        error::check(lead->root != nullptr, "No root of lead tree");
        const tql::id_t root = lead->root->handler->tqlId();
        error::check(root == origin, "Wrong root of lead tree, {} should be {}", root, origin);
        merge(result, walk.follow_lead(handler, *lead), statistics);
    }
    if (!answered && !scan.has_extracted()) {
        merge(result, walk.match(handler, pattern), statistics);
    } else if (!answered) {
        const tql::pattern_t remaining = scan.reduced(pattern);
        merge(result, walk.match(handler, remaining), statistics);
    }
    if (result) settle(*result, statistics);
    return result;
}

void add_parent_if_wanted(ResultNode& root, TqlObjectHandler& handler,
                          const tql::pattern_t& pattern) {
    if (!pattern.wants(prop::parentId) || queues::decode(root.values).contains(prop::parentId))
        return;
    tql::property_map_t added;
    if (const HandlerRef parent = handler.tqlParentHandler())
        tql::add<tql::property_object_t>(added, prop::parentId, parent->tqlId(),
                                         tql::kFlagComputed);
    else
        tql::add_null<tql::property_object_t>(added, prop::parentId, tql::kFlagComputed);
    root.pool.encode(root, added);
}

}  // namespace tqlengine::detail
