#include "tqlengine/engine.h"

#include <map>

#include "error/exception.h"
#include "tql/errors.h"
#include "tqlengine/computed_handler.h"
#include "tqlengine/detail/chain.h"
#include "tqlengine/detail/evaluate.h"
#include "tqlengine/detail/patch_walk.h"
#include "tqlengine/detail/pattern_check.h"
#include "tqlengine/detail/walk.h"

namespace tqlengine {

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
                      const tql::pattern_t& pattern, SelectStatistics& statistics,
                      const Watch& watch) {
    detail::check_pattern(pattern, limits_);
    if (watch.subscription != 0)
        subscriptions_.watch(watch.subscription, roots, pattern, watch.patchable);
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
        ResultNodePtr node =
            detail::evaluateWithLeads(*handler, pattern, limits_, statistics, nodes_);
        if (!node) continue;
        detail::add_parent_if_wanted(*node, *handler, pattern);
        results.push_back(std::move(node));
    }
}

ResultNodePtr Engine::evaluatePatch(const tql::id_t& id, const std::set<tql::id_t>& roots,
                                    const tql::pattern_t& pattern, SelectStatistics& statistics) {
    HandlerRef object = find(id);
    if (!object) return nullptr;
    detail::Chain chain;
    detail::build_chain(chain, std::move(object));
    std::map<tql::id_t, size_t> starts;
    for (size_t place = 0; place < chain.size(); ++place)
        if (!chain[place].id.empty() && roots.contains(chain[place].id))
            starts.emplace(chain[place].id, place);
    for (const auto& [root, place] : starts) {
        detail::PatchWalk walk(chain, limits_, statistics, nodes_);
        ResultNodePtr result = walk.patchWalk(place, pattern);
        if (!result) continue;
        detail::add_parent_if_wanted(*result, *chain[place].object, pattern);
        return result;
    }
    return nullptr;
}

void Engine::notify(TqlObjectHandler& handler, object_operation_t operation) noexcept {
    if (operation_hook_) operation_hook_(handler, operation);
}

}  // namespace tqlengine
