#include "tqlengine/engine.h"

#include <fmt/format.h>

#include "error/exception.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tqlengine/computed_handler.h"
#include "tqlengine/detail/lead.h"
#include "tqlengine/detail/pattern_check.h"
#include "tqlengine/detail/walk.h"

namespace tqlengine {

namespace {

ResultNodePtr evaluate_with_leads(TqlObjectHandler& handler, const tql::pattern_t& pattern,
                                  const SelectLimits& limits, SelectStatistics& statistics,
                                  ResultNodePool& nodes) {
    detail::Walk walk(limits, statistics, nodes);
    TqlIdResolver* resolver = handler.tqlIdResolver();
    if (!resolver) return walk.match(handler, pattern);

    const tql::id_t origin = handler.tqlId();
    detail::LeadScan scan(*resolver, origin);
    const bool answered = scan.scan(pattern);
    const size_t parts = scan.leads().size() + (answered ? 0 : 1);
    if (parts > 1 && detail::needs_one_walk(pattern)) return walk.match(handler, pattern);
    ResultNodePtr result;
    for (const auto& lead : scan.leads()) {
        error::check(lead->root != nullptr, "No root of lead tree");
        const tql::id_t root = lead->root->handler->tqlId();
        error::check(root == origin, "Wrong root of lead tree, {} should be {}", root.to_string(),
                     origin.to_string());
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

// The root is the one object of a result whose parent the tree itself doesn't show.
void add_parent(ResultNode& node, TqlObjectHandler& handler) {
    if (const HandlerRef parent = handler.tqlParentHandler())
        tql::add<tql::property_object_t>(node.properties, prop::parentId, parent->tqlId(),
                                         tql::kFlagComputed);
    else
        tql::add_null<tql::property_object_t>(node.properties, prop::parentId, tql::kFlagComputed);
}

}  // namespace

void Engine::add_singleton(TqlSingletonHandler& singleton) {
    const uint32_t number = singleton.class_number();
    error::check(number < singletons_.size(), "Singleton of class {} beyond the class table",
                 number);
    error::check(!singletons_[number], "Two singletons of class {}", number);
    singletons_[number] = &singleton;
}

HandlerRef Engine::find(const tql::id_t& id) const {
    for (TqlIdResolver* resolver : resolvers_)
        if (HandlerRef handler = resolver->find(id)) return handler;
    return {};
}

HandlerRef Engine::get(const tql::id_t& id) const {
    HandlerRef handler = find(id);
    if (!handler) throw errors::tql(errors::ERR_NO_SUCH_ID, id.to_string() + " not found");
    return handler;
}

void Engine::discard_orphans(const tql::id_t& id) const {
    for (TqlIdResolver* resolver : resolvers_) resolver->discardOrphans(id);
}

void Engine::evaluate(ResultList& results, const std::set<tql::id_t>& roots,
                      const tql::pattern_t& pattern, SelectStatistics& statistics) {
    detail::check_pattern(pattern, limits_);
    TqlSingletonHandler* singleton =
        pattern.class_ < singletons_.size() ? singletons_[pattern.class_] : nullptr;
    for (const tql::id_t& root : roots) {
        if (singleton) {
            const HandlerRef handler(singleton);
            detail::Walk walk(limits_, statistics, nodes_);
            if (ResultNodePtr node = walk.match(*handler, pattern))
                results.push_back(std::move(node));
            continue;
        }
        const HandlerRef handler = find(root);
        if (!handler) continue;
        ResultNodePtr node = evaluate_with_leads(*handler, pattern, limits_, statistics, nodes_);
        if (!node) continue;
        if (pattern.wants(prop::parentId) && !node->properties.contains(prop::parentId))
            add_parent(*node, *handler);
        results.push_back(std::move(node));
    }
}

void Engine::notify(TqlObjectHandler& handler, object_operation_t operation) noexcept {
    if (operation_hook_) operation_hook_(handler, operation);
}

void Engine::notify_pass(TqlObjectHandler&) noexcept {}

void Engine::tqlPeriodicUpdate(queues::queue_t, std::string_view) {}

}  // namespace tqlengine
