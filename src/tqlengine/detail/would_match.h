// Whether a pattern, read along the way from a root down to a changed object, can reach that
// object. Other children of the objects on the way aren't looked at, so the answer costs the depth
// of the object and never the size of a selection.
//
// All steps that stand at one object are tried together, one object of the way after the other: a
// step is tried at most once at each object, whatever the pattern, and nothing recurses.
#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <vector>

#include "tql/id.h"
#include "tql/pattern.h"
#include "tqlengine/detail/chain.h"
#include "tqlengine/detail/condition_test.h"
#include "tqlengine/select_statistics.h"

namespace tqlengine::detail {

class WouldMatch {
  public:
    /// `pattern` must outlive this object and stay where it is.
    explicit WouldMatch(const tql::pattern_t& pattern);
    WouldMatch(const WouldMatch&) = delete;
    WouldMatch& operator=(const WouldMatch&) = delete;

    /// True when the pattern, starting at any object of `chain` that is one of `roots`, can reach
    /// the last object of the chain. Throws errors::tql and errors::stdanomaly when a condition
    /// can't be tested.
    bool wouldMatch(const Chain& chain, const std::set<tql::id_t>& roots);

  private:
    struct Step {
        const tql::pattern_t* pattern;
        size_t first_successor;  ///< place in steps_: `next`, then `cond_next`
        size_t successor_count;
        [[nodiscard]] bool recursive() const {
            return (pattern->flags & tql::kPatternRecursive) != 0;
        }
    };

    /// Steps to be tried at one object, each once.
    struct Tried {
        std::vector<size_t> steps;
        std::vector<bool> known;

        void add(size_t step);
        void clear();
    };

    bool try_all_at(TqlObjectHandler& handler, bool is_last);

    std::vector<Step> steps_;  ///< the pattern laid flat, the top first
    SelectStatistics statistics_;
    ConditionTest test_;
    Tried here_;
    Tried below_;
};

}  // namespace tqlengine::detail
