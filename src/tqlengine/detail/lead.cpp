#include "tqlengine/detail/lead.h"

#include <algorithm>

#include "error/exception.h"
#include "tql/names.h"

namespace tqlengine::detail {

namespace {

// The classes of the steps that are tried at one object together.
struct StepClasses {
    std::set<uint32_t> hidden;
    std::set<uint32_t> shown;

    void add(const tql::pattern_t& step) {
        const bool hides = (step.flags & tql::kPatternSplice) != 0;
        (hides ? hidden : shown).insert(step.class_);
        if ((step.flags & tql::kPatternRecursive) != 0)
            for (const tql::pattern_t& successor : step.next) add(successor);
    }
    [[nodiscard]] bool overlap() const {
        if (hidden.empty() || shown.empty()) return false;
        if (hidden.contains(cls::Any) || shown.contains(cls::Any)) return true;
        return std::any_of(hidden.begin(), hidden.end(),
                           [&](uint32_t number) { return shown.contains(number); });
    }
};

}  // namespace

bool LeadScan::scan(const tql::pattern_t& step, const Way* above) {
    const Way way{step, above};
    size_t taken_over = 0;
    for (const tql::pattern_t& successor : step.next) {
        if (!scan(successor, &way)) continue;
        extracted_.insert(&successor);
        ++taken_over;
    }

    // An object of this step stands in the result for the sake of its successors only, and the
    // leads bring it.
    const bool keep = (step.flags & tql::kPatternKeep) != 0;
    if (taken_over > 0 && taken_over == step.next.size() && !keep) return true;

    // What follows a recursive step may begin without a single object that matches the step, so an
    // index on the step itself would miss it.
    const bool recursive = (step.flags & tql::kPatternRecursive) != 0;
    if (recursive && taken_over < step.next.size()) return false;

    HandlerList hits;
    if (!resolver_.obviousMatches(hits, origin_, step)) return false;
    if (hits.empty()) return true;

    auto lead = std::make_unique<Lead>();
    std::set<tql::id_t> dead;
    for (HandlerRef& hit : hits) {
        error::check(static_cast<bool>(hit),
                     "obviousMatches supplied NULL on TqlObjectHandler list");
        climb(*lead, std::move(hit), dead);
    }
    if (!lead->root) return true;
    lead->path = reduced(step);
    for (; above != nullptr; above = above->above) lead->stack.push_back(&above->step);
    std::reverse(lead->stack.begin(), lead->stack.end());
    leads_.push_back(std::move(lead));
    return true;
}

void LeadScan::climb(Lead& lead, HandlerRef hit, std::set<tql::id_t>& dead) const {
    std::vector<tql::id_t> climbed;
    LeadNode* below = nullptr;
    for (HandlerRef object = std::move(hit);;) {
        const tql::id_t id = object->tqlId();
        const auto [place, inserted] = lead.nodes.try_emplace(id);
        LeadNode& node = place->second;
        if (below)
            node.children.push_back(below);
        else
            node.match_end = true;
        if (!inserted) return;
        node.handler = std::move(object);
        climbed.push_back(id);
        if (id == origin_) {
            lead.root = &node;
            return;
        }
        object = node.handler->tqlParentHandler();
        if (!object || dead.contains(object->tqlId())) break;
        below = &node;
    }
    // Outside the origin's subtree: forget the way, and remember it so that no later hit goes it
    // again.
    for (const tql::id_t& id : climbed) lead.nodes.erase(id);
    dead.insert(climbed.begin(), climbed.end());
}

tql::pattern_t LeadScan::reduced(const tql::pattern_t& step) const {
    tql::pattern_t copy(step.class_, step.flags);
    copy.tag = step.tag;
    copy.cond_next = step.cond_next;
    copy.where = step.where;
    copy.wanted_properties = step.wanted_properties;
    for (const tql::pattern_t& successor : step.next)
        if (!extracted_.contains(&successor)) copy.next.push_back(reduced(successor));
    if (copy.next.size() != step.next.size()) copy.flags |= kHadSuccessors;
    return copy;
}

bool needs_one_walk(const tql::pattern_t& pattern) {
    if ((pattern.flags & tql::kPatternRecursive) != 0) {
        StepClasses together;
        together.add(pattern);
        if (together.overlap()) return true;
    }
    return std::any_of(pattern.next.begin(), pattern.next.end(), needs_one_walk) ||
           std::any_of(pattern.cond_next.begin(), pattern.cond_next.end(), needs_one_walk);
}

}  // namespace tqlengine::detail
