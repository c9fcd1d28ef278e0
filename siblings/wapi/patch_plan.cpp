#include "wapi/patch_plan.h"

#include <algorithm>
#include <vector>

#include "tql/names.h"

namespace wapi {

namespace {

using tql::pattern_t;

const uint32_t kAnyClass = tql::get_class(".");

bool has(const pattern_t& step, uint32_t flag) {
    return (step.flags & flag) != 0;
}

bool goes_on(const pattern_t& step) {
    return has(step, tql::kPatternRecursive) || !step.next.empty() || !step.cond_next.empty();
}

/// All steps. Without recursion: the depth of a pattern is its sender's choice.
std::vector<const pattern_t*> all_steps(const pattern_t& pattern) {
    std::vector<const pattern_t*> steps{&pattern};
    for (size_t i = 0; i < steps.size(); ++i) {
        const pattern_t& step = *steps[i];
        for (const pattern_t& below : step.next) steps.push_back(&below);
        for (const pattern_t& below : step.cond_next) steps.push_back(&below);
    }
    return steps;
}

/// The classes of the steps that an object's children may match by the `successors` of its own:
/// those of these steps, and behind a recursive one those of the steps that follow it, which may
/// begin without it.
void add_followers(const std::vector<pattern_t>& successors, std::set<uint32_t>& classes) {
    std::vector<const std::vector<pattern_t>*> open{&successors};
    while (!open.empty()) {
        const std::vector<pattern_t>& steps = *open.back();
        open.pop_back();
        for (const pattern_t& step : steps) {
            classes.insert(step.class_);
            if (has(step, tql::kPatternRecursive)) open.push_back(&step.next);
        }
    }
}

/// Whether one child of an object of `step` may be in the answer for its own sake and beside
/// another one: a patch for the other tells only what it has beside it.
bool stands_beside_what_follows(const pattern_t& step) {
    std::set<uint32_t> required, optional;
    add_followers(step.next, required);
    add_followers(step.cond_next, optional);
    if (required.empty() || optional.empty()) return false;
    return required.contains(kAnyClass) || optional.contains(kAnyClass) ||
           std::any_of(optional.begin(), optional.end(),
                       [&](uint32_t one) { return required.contains(one); });
}

/// Whether a patch says the same of the objects of this step as a new result would.
bool is_patchable(const pattern_t& step) {
    // The nodes of templates have no ids of their own, and those of hidden steps stand elsewhere in
    // a result than in a patch.
    if (has(step, tql::kPatternTemplates) || has(step, tql::kPatternSplice)) return false;
    if (stands_beside_what_follows(step)) return false;
    if (!has(step, tql::kPatternRecursive)) return true;
    // On the way of a patch the steps behind a recursive one are tried in other places too.
    return step.cond_next.empty() && (!has(step, tql::kPatternKeep) ||
                                      std::none_of(step.next.begin(), step.next.end(), goes_on));
}

/// Whether objects of this step are selected only for the sake of others below them.
bool needs_children(const pattern_t& step) {
    return !step.next.empty() && !has(step, tql::kPatternKeep);
}

}  // namespace

std::optional<PatchPlan> make_patch_plan(const pattern_t& pattern, size_t root_count) {
    if (root_count != 1) return std::nullopt;
    const std::vector<const pattern_t*> steps = all_steps(pattern);
    PatchPlan plan;
    for (const pattern_t* step : steps) {
        if (!is_patchable(*step)) return std::nullopt;
        if (!needs_children(*step)) continue;
        // The class has to tell the step.
        const auto may_be_same = [&](const pattern_t* other) {
            return other != step && (other->class_ == step->class_ || other->class_ == kAnyClass);
        };
        if (step->class_ == kAnyClass || std::any_of(steps.begin(), steps.end(), may_be_same))
            return std::nullopt;
        std::set<uint32_t>& keepers = plan.kept_by[step->class_];
        add_followers(step->next, keepers);
        if (has(*step, tql::kPatternRecursive)) keepers.insert(step->class_);
    }
    return plan;
}

}  // namespace wapi
