// The walk of a pattern down the way from a root to a changed object. It gives a tree of one
// branch: the objects of the way, and at its end the changed object as a full answer. What stands
// beside the way is looked at for `cond_next` alone.
//
// The way is as deep as the tree, so the walk keeps its own stack of frames, as Walk does: one
// frame per object and step being tried.
//
//   enter --> below ------------------------> (done)      a plain step
//     |
//     +-----> here --> test --> below ------> (done)      a recursive step
//
// At the end of the way a frame answers in full at once.
#pragma once

#include <optional>
#include <vector>

#include "tqlengine/detail/chain.h"
#include "tqlengine/detail/condition_test.h"
#include "tqlengine/detail/walk.h"
#include "tqlengine/result_node.h"
#include "tqlengine/select_statistics.h"

namespace tqlengine::detail {

class PatchWalk {
  public:
    /// All must outlive the walk, and the pool its results.
    PatchWalk(const Chain& chain, const SelectLimits& limits, SelectStatistics& statistics,
              ResultNodePool& nodes)
        : chain_(chain),
          limits_(limits),
          statistics_(statistics),
          nodes_(nodes),
          test_(statistics),
          beside_(limits, statistics, nodes) {}

    /// The branch from the object at `place` of the chain to its last one, tried against `pattern`;
    /// empty when the pattern doesn't get there. `pattern` must have been checked and stay in place
    /// as long as the walk lives. Throws errors::tql and errors::db_anomaly, after which the walk
    /// can't be used any more.
    ResultNodePtr patchWalk(size_t place, const tql::pattern_t& pattern);

  private:
    enum class stage_t { enter, here, test, below, done };

    struct Call {
        size_t place;
        const tql::pattern_t* step;
    };
    struct Frame {
        Call call;
        stage_t stage = stage_t::enter;
        size_t branch = 0;        ///< place among `next`, then `cond_next`
        ResultNodePtr node;       ///< of this object
        ResultNodePtr collected;  ///< recursive steps: all that was found at and below this object
        bool next_is_here =
            false;  ///< recursive steps: a step of `next` gets there from this object

        [[nodiscard]] bool recursive() const {
            return (call.step->flags & tql::kPatternRecursive) != 0;
        }
    };

    std::optional<Call> advance(Frame& frame);
    void deliver(Frame& frame, ResultNodePtr result);

    void enter(Frame& frame);
    std::optional<Call> here(Frame& frame);
    void test(Frame& frame);
    std::optional<Call> below(Frame& frame);
    void finish(Frame& frame);
    void finish_recursive(Frame& frame);

    [[nodiscard]] TqlObjectHandler& object(const Frame& frame) const {
        return *chain_[frame.call.place].object;
    }
    const tql::pattern_t* successor(const Frame& frame, size_t branch) const;
    const tql::origin_t& origin_of(const Frame& frame);
    void make_node(Frame& frame);
    void finish_node(Frame& frame);
    void add_what_stands_beside(Frame& frame, ResultNodePtr& into);

    const Chain& chain_;
    const SelectLimits& limits_;
    SelectStatistics& statistics_;
    ResultNodePool& nodes_;
    ConditionTest test_;
    Walk beside_;
    std::vector<Frame> frames_;
    std::vector<tql::origin_t>
        origins_;  ///< of the objects of the way, from the top as far as known
};

}  // namespace tqlengine::detail
