#include "tqlengine/detail/pattern_check.h"

#include <fmt/format.h>
#include <vector>

#include "tql/errors.h"

namespace tqlengine::detail {

namespace {

struct Step {
    const tql::pattern_t* pattern;
    size_t depth;
};

void check_conditions(const tql::pattern_t& step) {
    for (const tql::condition_t& condition : step.where)
        if (!condition.value)
            throw errors::tql(errors::ERR_ILLEGAL_TYPE, "Condition without a value in the pattern");
}

}  // namespace

void check_pattern(const tql::pattern_t& pattern, const SelectLimits& limits) {
    size_t steps = 0;
    std::vector<Step> open{{&pattern, 1}};
    while (!open.empty()) {
        const Step step = open.back();
        open.pop_back();
        if (step.depth > limits.pattern_depth)
            throw errors::tql(
                errors::ERR_NOT_IMPLEMENTED,
                fmt::format("The pattern is nested more than {} steps deep", limits.pattern_depth));
        if (++steps > limits.pattern_steps)
            throw errors::tql(
                errors::ERR_NOT_IMPLEMENTED,
                fmt::format("The pattern has more than {} steps", limits.pattern_steps));
        check_conditions(*step.pattern);
        for (const auto* successors : {&step.pattern->next, &step.pattern->cond_next})
            for (const tql::pattern_t& successor : *successors)
                open.push_back({&successor, step.depth + 1});
    }
}

void fail_considered(const SelectLimits& limits) {
    throw errors::tql(
        errors::ERR_NOT_IMPLEMENTED,
        fmt::format("The pattern has to look at more than {} objects", limits.considered));
}

}  // namespace tqlengine::detail
