#include "tqlengine/detail/walk.h"

#include <algorithm>
#include <utility>

#include "tqlengine/detail/pattern_check.h"

namespace tqlengine::detail {

namespace {

// Of thousands of children a few may match.
constexpr size_t kReserveAtMost = 64;
constexpr size_t kUsualDepth = 8;

}  // namespace

ResultNodePtr Walk::match(TqlObjectHandler& handler, const tql::pattern_t& step) {
    return run({&handler, &step, nullptr, nullptr, 0});
}

ResultNodePtr Walk::follow_lead(TqlObjectHandler& handler, const Lead& lead) {
    return run(along_lead(lead, handler, *lead.root, 0));
}

ResultNodePtr Walk::run(const Call& first) {
    push(first);
    for (;;) {
        if (const std::optional<Call> call = advance(frames_[depth_ - 1])) {
            push(*call);
            continue;
        }
        ResultNodePtr result = leave(frames_[depth_ - 1]);
        if (--depth_ == 0) return result;
        deliver(frames_[depth_ - 1], std::move(result));
    }
}

void Walk::push(const Call& call) {
    if (frames_.empty()) frames_.reserve(kUsualDepth);
    if (depth_ == frames_.size()) frames_.emplace_back();
    Frame& frame = frames_[depth_++];
    frame.call = call;
    frame.origin.reset();
    go(frame, stage_t::enter);
}

void Walk::go(Frame& frame, stage_t stage) {
    frame.stage = stage;
    frame.branch = 0;
    frame.child = 0;
    frame.listed = false;
    frame.lead_child = frame.call.lead ? frame.call.lead_node->first_child : nullptr;
}

Walk::Call Walk::along_lead(const Lead& lead, TqlObjectHandler& handler, const LeadNode& node,
                            size_t position) {
    const tql::pattern_t* step = position < lead.stack.size() ? lead.stack[position] : nullptr;
    return {&handler, step, &lead, &node, position};
}

// Does what the frame's stages ask for until one of them needs a call made, or all are done.
std::optional<Walk::Call> Walk::advance(Frame& frame) {
    for (;;) {
        std::optional<Call> call;
        switch (frame.stage) {
            case stage_t::enter:
                enter(frame);
                break;
            case stage_t::self_next:
                call = self_next(frame);
                break;
            case stage_t::test:
                test(frame);
                break;
            case stage_t::descend:
                call = descend(frame);
                break;
            case stage_t::next:
                call = next(frame);
                break;
            case stage_t::cond_next:
                call = cond_next(frame);
                break;
            case stage_t::done:
                return std::nullopt;
        }
        if (call) return call;
    }
}

void Walk::enter(Frame& frame) {
    Call& call = frame.call;
    if (call.lead && !call.step) {
        if (!call.lead_node->match_end) return go(frame, stage_t::done);
        call = {call.handler, &call.lead->path, nullptr, nullptr, 0};
    }
    consider();
    if (frame.recursive()) return go(frame, stage_t::self_next);
    if (test_.objectMatches(*call.handler, *call.step) != 0) return go(frame, stage_t::done);
    if (call.lead) return go(frame, stage_t::descend);
    if (!call.step->next.empty() || (call.step->flags & kHadSuccessors) != 0)
        return go(frame, stage_t::next);
    // The successors on condition are looked at only beside others.
    make_node(frame);
    finish_node(frame);
    go(frame, stage_t::done);
}

// What follows a recursive step may begin at the object itself.
std::optional<Walk::Call> Walk::self_next(Frame& frame) {
    const Call& call = frame.call;
    const size_t count = call.lead ? 1 : call.step->next.size();
    if (frame.branch == count) {
        go(frame, stage_t::test);
        return std::nullopt;
    }
    const size_t branch = frame.branch++;
    if (call.lead) return along_lead(*call.lead, *call.handler, *call.lead_node, call.position + 1);
    return Call{call.handler, &call.step->next[branch], nullptr, nullptr, 0};
}

void Walk::test(Frame& frame) {
    const bool matches = test_.objectMatches(*frame.call.handler, *frame.call.step) == 0;
    go(frame, matches ? stage_t::descend : stage_t::done);
}

// The same step at the children of a recursive one, or the way down along a lead.
std::optional<Walk::Call> Walk::descend(Frame& frame) {
    const Call& call = frame.call;
    if (call.lead) {
        if (frame.lead_child != nullptr) {
            const LeadNode& child =
                *std::exchange(frame.lead_child, frame.lead_child->next_sibling);
            frame.called = child.handler.get();
            return along_lead(*call.lead, *child.handler, child,
                              frame.recursive() ? call.position : call.position + 1);
        }
    } else {
        if (!frame.listed) call.handler->tqlChildrenHandlers(frame.children, *call.step);
        frame.listed = true;
        if (frame.child < frame.children.size()) {
            frame.called = frame.children[frame.child++].get();
            return Call{frame.called, call.step, nullptr, nullptr, 0};
        }
        frame.children.clear();
        if (!frame.node && (call.step->next.empty() || frame.keeps())) make_node(frame);
        if (frame.node) finish_node(frame);
    }
    go(frame, frame.node ? stage_t::cond_next : stage_t::done);
    if (frame.node && frame.recursive()) merge(frame.collected, std::move(frame.node), statistics_);
    return std::nullopt;
}

std::optional<Walk::Call> Walk::next(Frame& frame) {
    if (auto call = next_of_branch(frame, frame.call.step->next)) return call;
    go(frame, frame.node || frame.keeps() ? stage_t::cond_next : stage_t::done);
    return std::nullopt;
}

std::optional<Walk::Call> Walk::cond_next(Frame& frame) {
    if (auto call = next_of_branch(frame, frame.call.step->cond_next)) return call;
    if (!frame.recursive() && !frame.call.lead) {
        if (!frame.node) make_node(frame);
        finish_node(frame);
    }
    go(frame, stage_t::done);
    return std::nullopt;
}

// The next child of the next branch; none when all have been tried.
std::optional<Walk::Call> Walk::next_of_branch(Frame& frame,
                                               const std::vector<tql::pattern_t>& branches) {
    for (; frame.branch < branches.size(); ++frame.branch) {
        const tql::pattern_t& branch = branches[frame.branch];
        if (!frame.listed) frame.call.handler->tqlChildrenHandlers(frame.children, branch);
        frame.listed = true;
        if (frame.child < frame.children.size()) {
            frame.called = frame.children[frame.child++].get();
            return Call{frame.called, &branch, nullptr, nullptr, 0};
        }
        frame.children.clear();
        frame.child = 0;
        frame.listed = false;
    }
    return std::nullopt;
}

void Walk::deliver(Frame& frame, ResultNodePtr result) {
    if (!result) return;
    if (frame.stage == stage_t::self_next) {
        merge(frame.collected, std::move(result), statistics_);
        return;
    }
    const size_t expected = frame.children.size() - (frame.children.empty() ? 0 : frame.child - 1);
    if (frame.stage == stage_t::cond_next) {
        if (!frame.recursive() && !frame.node) make_node(frame);
        take(frame.recursive() ? frame.collected : frame.node, std::move(result), *frame.called,
             expected);
        return;
    }
    if (!frame.node) {
        make_node(frame);
        if (frame.call.lead) finish_node(frame);
    }
    take(frame.node, std::move(result), *frame.called, expected);
}

ResultNodePtr Walk::leave(Frame& frame) {
    frame.children.clear();
    const bool recursive = frame.call.step && frame.recursive();
    ResultNodePtr result = std::move(recursive ? frame.collected : frame.node);
    frame.node.reset();
    if (result) {
        if (recursive) ++statistics_.included;
        settle(*result, statistics_);
    }
    return result;
}

void Walk::consider() {
    count_considered(limits_, statistics_);
}

void Walk::make_node(Frame& frame) {
    const bool visible = (frame.call.step->flags & tql::kPatternSplice) == 0;
    frame.node = nodes_.make(*frame.call.handler, origin_of(frame), visible);
}

// The frames lie on the way down to this one, so that each origin follows from the one above.
const tql::origin_t& Walk::origin_of(const Frame& frame) {
    const auto last = static_cast<size_t>(&frame - frames_.data());
    size_t known = last;
    while (known > 0 && !frames_[known].origin) --known;
    if (!frames_[known].origin) frames_[known].origin = frames_[known].call.handler->tqlOrigin();
    for (; known < last; ++known) {
        const Frame& above = frames_[known];
        Frame& below = frames_[known + 1];
        TqlObjectHandler& handler = *below.call.handler;
        below.origin = &handler == above.call.handler
                           ? *above.origin
                           : handler.tqlOriginBelow(*above.call.handler, *above.origin);
    }
    return *frame.origin;
}

void Walk::finish_node(Frame& frame) {
    const tql::pattern_t& step = *frame.call.step;
    if (step.tag != tql::kNoTag) frame.node->add_tag(step.tag);
    nodes_.encode(*frame.node, *frame.call.handler, step);
    ++statistics_.included;
}

void Walk::take(ResultNodePtr& into, ResultNodePtr result, TqlObjectHandler& child,
                size_t expected) {
    if (!result->visible) return splice(into, std::move(result));
    if (into->children.empty()) into->children.reserve(std::min(expected, kReserveAtMost));
    into->children.append(child.tqlInternalId(), std::move(result));
}

}  // namespace tqlengine::detail
