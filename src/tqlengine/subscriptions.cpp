#include "tqlengine/subscriptions.h"

#include "log/log.h"
#include "tql/errors.h"
#include "tqlengine/detail/chain.h"
#include "tqlengine/detail/subscription_index.h"
#include "tqlengine/detail/would_match.h"

namespace tqlengine {

namespace {

const logging::Logger logger{"tqlquery"};

// A patch names something that can be found by id.
const tql::id_t& nearest_stored(const detail::Chain& chain) {
    auto link = chain.rbegin();
    while ((link->object->tqlFlags() & kObjectComputed) != 0 && link + 1 != chain.rend()) ++link;
    return link->id;
}

/// Runs `question`; true also when it can't be answered.
template <class Question>
bool true_or_unknown(Question&& question, const tql::id_t& changed) {
    try {
        return question();
    } catch (const errors::tql& failure) {
        logger.debug("Can't tell who is touched by {}: {}", changed.to_string(), failure.text());
    } catch (const errors::stdanomaly& failure) {
        logger.warning("Can't tell who is touched by {}: {}", changed.to_string(), failure.text());
    }
    return true;
}

}  // namespace

struct Subscriptions::Watched {
    Watched(std::set<tql::id_t> its_roots, const tql::pattern_t& its_pattern, bool is_patchable)
        : roots(std::move(its_roots)),
          pattern(its_pattern),
          test(pattern),
          patchable(is_patchable) {}

    const std::set<tql::id_t> roots;
    const tql::pattern_t pattern;
    detail::WouldMatch test;
    const bool patchable;
};

Subscriptions::Subscriptions() : index_(std::make_unique<detail::SubscriptionIndex>()) {}
Subscriptions::~Subscriptions() = default;

void Subscriptions::watch(uint32_t subscription, const std::set<tql::id_t>& roots,
                          const tql::pattern_t& pattern, bool patchable) {
    end_watching(subscription);
    watched_.emplace(subscription, std::make_unique<Watched>(roots, pattern, patchable));
    index_->add(subscription, roots, pattern);
}

void Subscriptions::end_watching(uint32_t subscription) {
    if (watched_.erase(subscription) > 0) index_->remove(subscription);
}

void Subscriptions::forget(uint32_t subscription) {
    end_watching(subscription);
    reevaluations_.erase(subscription);
    patches_.erase(patches_.lower_bound({subscription, {}}),
                   patches_.lower_bound({subscription + 1, {}}));
}

void Subscriptions::note(TqlObjectHandler& changed) {
    if (watched_.empty()) return;
    detail::Chain chain;
    const tql::id_t id = changed.tqlId();
    const bool whole = !true_or_unknown(
        [&] {
            detail::build_chain(chain, HandlerRef(&changed));
            return false;
        },
        id);
    std::vector<uint32_t> asked;
    if (whole)
        asked = index_->candidates(chain);
    else
        for (const auto& [subscription, watched] : watched_) asked.push_back(subscription);
    for (const uint32_t subscription : asked) {
        Watched& watched = *watched_.at(subscription);
        if (whole &&
            !true_or_unknown([&] { return watched.test.wouldMatch(chain, watched.roots); }, id))
            continue;
        if (watched.patchable) {
            const tql::id_t& object = nearest_stored(chain);
            logger.debug("Queueing a patch to {}", object.to_string());
            patches_.insert({subscription, object});
        } else {
            reevaluations_.insert(subscription);
            end_watching(subscription);
        }
    }
}

std::optional<Subscriptions::Patch> Subscriptions::take_patch() {
    if (patches_.empty()) return std::nullopt;
    return patches_.extract(patches_.begin()).value();
}

std::optional<uint32_t> Subscriptions::take_reevaluation() {
    if (reevaluations_.empty()) return std::nullopt;
    return reevaluations_.extract(reevaluations_.begin()).value();
}

}  // namespace tqlengine
