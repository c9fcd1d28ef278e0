// Who watches the tree: the patterns that a write is held against, and what the writes have touched
// since somebody last looked.
//
//   [absent] --watch()--> [watched] --note(), patchable--> stays watched, a patch is due
//                             |
//                             +------note(), otherwise---> [absent], an evaluation is due
//
// An evaluation watches again, so that any number of writes before it costs one evaluation. Who
// subscribed, and when what is due goes out, is the business of whoever takes it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "tql/id.h"
#include "tql/pattern.h"
#include "tqlengine/object_handler.h"

namespace tqlengine {

namespace detail {
class SubscriptionIndex;

}  // namespace detail

class Subscriptions {
  public:
    /// A subscriber is to hear anew of one object.
    struct Patch {
        uint32_t subscription = 0;
        tql::id_t object;

        friend auto operator<=>(const Patch&, const Patch&) = default;
    };

    Subscriptions();
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;
    ~Subscriptions();

    /// From now on writes are held against these roots and this pattern, in place of earlier ones
    /// of this subscription. The depth of the pattern must have been checked.
    void watch(uint32_t subscription, const std::set<tql::id_t>& roots,
               const tql::pattern_t& pattern, bool patchable);
    /// Ends watching, and nothing is due to the subscription any more.
    void forget(uint32_t subscription);

    /// The notify pass: notes what is due to every watched subscription that can reach `changed` as
    /// the tree stands now. One for which that can't be told, because a condition of its pattern
    /// can't be applied or an object on the way can't be read, counts as touched: the write goes
    /// on, and its evaluation tells the subscriber. Costs the depth of the object, and a test for
    /// each of the few subscriptions whose roots, classes and ids fit.
    void note(TqlObjectHandler& changed);

    /// The next patch that is due, by subscription and object; it is due no more.
    std::optional<Patch> take_patch();
    /// The lowest subscription of which an evaluation is due; it is due no more.
    std::optional<uint32_t> take_reevaluation();
    /// Makes an evaluation due.
    void want_reevaluation(uint32_t subscription) { reevaluations_.insert(subscription); }

    /// Subscriptions that writes are held against now.
    [[nodiscard]] size_t watched() const noexcept { return watched_.size(); }

  private:
    struct Watched;

    void end_watching(uint32_t subscription);

    std::map<uint32_t, std::unique_ptr<Watched>> watched_;
    std::unique_ptr<detail::SubscriptionIndex> index_;
    std::set<Patch> patches_;
    std::set<uint32_t> reevaluations_;
};

}  // namespace tqlengine
