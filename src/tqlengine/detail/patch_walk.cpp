#include "tqlengine/detail/patch_walk.h"

#include "tqlengine/detail/evaluate.h"
#include "tqlengine/detail/pattern_check.h"
#include "tqlengine/engine.h"

namespace tqlengine::detail {

ResultNodePtr PatchWalk::patchWalk(size_t place, const tql::pattern_t& pattern) {
    frames_.push_back({.call = {place, &pattern}, .node = nullptr, .collected = nullptr});
    for (;;) {
        if (const std::optional<Call> call = advance(frames_.back())) {
            frames_.push_back({.call = *call, .node = nullptr, .collected = nullptr});
            continue;
        }
        Frame& done = frames_.back();
        ResultNodePtr result = std::move(done.recursive() ? done.collected : done.node);
        frames_.pop_back();
        if (result) settle(*result, statistics_);
        if (frames_.empty()) return result;
        deliver(frames_.back(), std::move(result));
    }
}

// Does what the frame's stages ask for until one of them needs a call made, or all are done.
std::optional<PatchWalk::Call> PatchWalk::advance(Frame& frame) {
    for (;;) {
        std::optional<Call> call;
        switch (frame.stage) {
            case stage_t::enter:
                enter(frame);
                break;
            case stage_t::here:
                call = here(frame);
                break;
            case stage_t::test:
                test(frame);
                break;
            case stage_t::below:
                call = below(frame);
                break;
            case stage_t::done:
                return std::nullopt;
        }
        if (call) return call;
    }
}

void PatchWalk::enter(Frame& frame) {
    count_considered(limits_, statistics_);
    if (frame.call.place + 1 == chain_.size()) {
        ResultNodePtr full =
            evaluateWithLeads(object(frame), *frame.call.step, limits_, statistics_, nodes_);
        if (full) full->add_tag(kPatchPath);
        (frame.recursive() ? frame.collected : frame.node) = std::move(full);
        frame.stage = stage_t::done;
    } else {
        frame.stage = frame.recursive() ? stage_t::here : stage_t::test;
    }
}

// What follows a recursive step may begin at the object itself.
std::optional<PatchWalk::Call> PatchWalk::here(Frame& frame) {
    if (const tql::pattern_t* step = successor(frame, frame.branch++))
        return Call{frame.call.place, step};
    frame.stage = stage_t::test;
    return std::nullopt;
}

void PatchWalk::test(Frame& frame) {
    const bool matches = test_.objectMatches(object(frame), *frame.call.step) == 0;
    frame.stage = matches ? stage_t::below : stage_t::done;
    frame.branch = 0;
}

std::optional<PatchWalk::Call> PatchWalk::below(Frame& frame) {
    const size_t place = frame.call.place + 1;
    if (frame.recursive()) {
        if (frame.branch++ == 0) return Call{place, frame.call.step};
        finish_recursive(frame);
    } else {
        if (const tql::pattern_t* step = successor(frame, frame.branch++)) return Call{place, step};
        finish(frame);
    }
    frame.stage = stage_t::done;
    return std::nullopt;
}

void PatchWalk::finish(Frame& frame) {
    if (!frame.node) return;
    add_what_stands_beside(frame, frame.node);
    finish_node(frame);
}

void PatchWalk::finish_recursive(Frame& frame) {
    const tql::pattern_t& step = *frame.call.step;
    if (!frame.node) {
        const bool stays = step.next.empty() || (step.flags & tql::kPatternKeep) != 0;
        if (!stays) return;
        // The object is in the answer for its own sake, and with it what was found from here.
        if (!frame.next_is_here) return frame.collected.reset();
        make_node(frame);
    }
    finish_node(frame);
    merge(frame.collected, std::move(frame.node), statistics_);
    add_what_stands_beside(frame, frame.collected);
}

void PatchWalk::deliver(Frame& frame, ResultNodePtr result) {
    if (!result) return;
    if (frame.stage == stage_t::here) {
        frame.next_is_here = frame.next_is_here || frame.branch <= frame.call.step->next.size();
        merge(frame.collected, std::move(result), statistics_);
        return;
    }
    if (!frame.node) make_node(frame);
    const TqlObjectHandler& child = *chain_[frame.call.place + 1].object;
    frame.node->children.append(child.tqlInternalId(), std::move(result));
}

/// Null behind the last one.
const tql::pattern_t* PatchWalk::successor(const Frame& frame, size_t branch) const {
    const tql::pattern_t& step = *frame.call.step;
    if (branch < step.next.size()) return &step.next[branch];
    branch -= step.next.size();
    return branch < step.cond_next.size() ? &step.cond_next[branch] : nullptr;
}

/// Each follows from the one above, so that all of them cost one way down.
const tql::origin_t& PatchWalk::origin_of(const Frame& frame) {
    while (origins_.size() <= frame.call.place) {
        TqlObjectHandler& next = *chain_[origins_.size()].object;
        origins_.push_back(
            origins_.empty()
                ? next.tqlOrigin()
                : next.tqlOriginBelow(*chain_[origins_.size() - 1].object, origins_.back()));
    }
    return origins_[frame.call.place];
}

void PatchWalk::make_node(Frame& frame) {
    const bool visible = (frame.call.step->flags & tql::kPatternSplice) == 0;
    frame.node = nodes_.make(object(frame), origin_of(frame), visible);
    frame.node->add_tag(kPatchPath);
}

void PatchWalk::finish_node(Frame& frame) {
    const tql::pattern_t& step = *frame.call.step;
    if (step.tag != tql::kNoTag) frame.node->add_tag(step.tag);
    nodes_.encode(*frame.node, object(frame), step);
    ++statistics_.included;
}

void PatchWalk::add_what_stands_beside(Frame& frame, ResultNodePtr& into) {
    for (const tql::pattern_t& step : frame.call.step->cond_next) {
        HandlerList children;
        object(frame).tqlChildrenHandlers(children, step);
        for (const HandlerRef& child : children) {
            ResultNodePtr result = beside_.match(*child, step);
            if (!result) continue;
            if (result->visible)
                into->children.append(child->tqlInternalId(), std::move(result));
            else
                splice(into, std::move(result));
        }
    }
}

}  // namespace tqlengine::detail
