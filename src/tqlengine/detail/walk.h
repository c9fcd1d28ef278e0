// The walk of a pattern over the tree: down the children of objects (match) or down the chains of a
// lead (follow_lead).
//
// Both are recursive by nature, over the depth of the tree times that of the pattern, and both
// depths come from outside. So the walk keeps its own stack of frames: one frame per object and
// step being tried. A frame asks for one call at a time, the call's result is delivered to it, and
// it goes on where it stood:
//
//   enter ----------> next ---------------------> cond_next --> (done)      a plain step
//     |                                             ^
//     +--> self_next --> test --> descend ----------+---------> (done)      a recursive step
//     |                            ^
//     +----------------------------+                                        a plain step along a
//     lead
//
// A step that doesn't match, or that no successor keeps, goes to done at once.
#pragma once

#include <optional>
#include <vector>

#include "tqlengine/detail/condition_test.h"
#include "tqlengine/detail/lead.h"
#include "tqlengine/result_node.h"
#include "tqlengine/select_statistics.h"

namespace tqlengine::detail {

class Walk {
  public:
    /// All three must outlive the walk, and the pool its results.
    Walk(const SelectLimits& limits, SelectStatistics& statistics, ResultNodePool& nodes)
        : limits_(limits), statistics_(statistics), nodes_(nodes), test_(statistics) {}

    /// What `step` selects at and below `handler`; empty when nothing. `handler` must stay
    /// referenced during the call, `step` must stay in place as long as the walk lives. Throws
    /// errors::tql and errors::db_anomaly, after which the walk can't be used any more.
    ResultNodePtr match(TqlObjectHandler& handler, const tql::pattern_t& step);

    /// What the pattern selects along `lead`, which starts at `handler`. Otherwise as match().
    ResultNodePtr follow_lead(TqlObjectHandler& handler, const Lead& lead);

  private:
    enum class stage_t { enter, self_next, test, descend, next, cond_next, done };

    struct Call {
        TqlObjectHandler* handler = nullptr;
        const tql::pattern_t* step = nullptr;
        /// Set while the call goes along a lead; `step` then is the lead's step at `position`, or
        /// null behind its end.
        const Lead* lead = nullptr;
        const LeadNode* lead_node = nullptr;
        size_t position = 0;
    };

    struct Frame {
        Call call;
        stage_t stage = stage_t::enter;
        size_t branch = 0;                     ///< place in next or cond_next
        size_t child = 0;                      ///< place in `children`
        bool listed = false;                   ///< `children` is the listing of the current branch
        const LeadNode* lead_child = nullptr;  ///< the next of the lead node's children
        HandlerList children;
        TqlObjectHandler* called = nullptr;   ///< the child whose result is awaited
        std::optional<tql::origin_t> origin;  ///< of this object, once somebody needs it
        ResultNodePtr node;                   ///< of this object
        ResultNodePtr collected;  ///< recursive steps: all that was found at and below this object

        [[nodiscard]] bool recursive() const {
            return (call.step->flags & tql::kPatternRecursive) != 0;
        }
        [[nodiscard]] bool keeps() const { return (call.step->flags & tql::kPatternKeep) != 0; }
    };

    ResultNodePtr run(const Call& first);
    void push(const Call& call);
    std::optional<Call> advance(Frame& frame);
    void deliver(Frame& frame, ResultNodePtr result);

    void enter(Frame& frame);
    std::optional<Call> self_next(Frame& frame);
    void test(Frame& frame);
    std::optional<Call> descend(Frame& frame);
    std::optional<Call> next(Frame& frame);
    std::optional<Call> cond_next(Frame& frame);
    std::optional<Call> next_of_branch(Frame& frame, const std::vector<tql::pattern_t>& branches);
    ResultNodePtr leave(Frame& frame);

    static Call along_lead(const Lead& lead, TqlObjectHandler& handler, const LeadNode& node,
                           size_t position);
    void consider();
    static void go(Frame& frame, stage_t stage);
    const tql::origin_t& origin_of(const Frame& frame);
    void make_node(Frame& frame);
    void finish_node(Frame& frame);
    void take(ResultNodePtr& into, ResultNodePtr result, TqlObjectHandler& child, size_t expected);

    const SelectLimits& limits_;
    SelectStatistics& statistics_;
    ResultNodePool& nodes_;
    ConditionTest test_;
    std::vector<Frame> frames_;  ///< those beyond depth_ are kept for the capacity of their lists
    size_t depth_ = 0;
};

}  // namespace tqlengine::detail
