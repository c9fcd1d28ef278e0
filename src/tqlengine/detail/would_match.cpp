#include "tqlengine/detail/would_match.h"

#include <utility>

namespace tqlengine::detail {

WouldMatch::WouldMatch(const tql::pattern_t& pattern) : test_(statistics_) {
    steps_.push_back({&pattern, 0, 0});
    for (size_t place = 0; place < steps_.size(); ++place) {
        const tql::pattern_t& step = *steps_[place].pattern;
        steps_[place].first_successor = steps_.size();
        steps_[place].successor_count = step.next.size() + step.cond_next.size();
        for (const tql::pattern_t& successor : step.next) steps_.push_back({&successor, 0, 0});
        for (const tql::pattern_t& successor : step.cond_next) steps_.push_back({&successor, 0, 0});
    }
    here_.known.resize(steps_.size());
    below_.known.resize(steps_.size());
}

void WouldMatch::Tried::add(size_t step) {
    if (known[step]) return;
    known[step] = true;
    steps.push_back(step);
}

void WouldMatch::Tried::clear() {
    for (const size_t step : steps) known[step] = false;
    steps.clear();
}

bool WouldMatch::wouldMatch(const Chain& chain, const std::set<tql::id_t>& roots) {
    // A test that threw may have left steps behind.
    here_.clear();
    below_.clear();
    for (size_t place = 0; place < chain.size(); ++place) {
        const ChainLink& link = chain[place];
        if (!link.id.empty() && roots.contains(link.id)) here_.add(0);
        if (here_.steps.empty()) continue;
        if (try_all_at(*link.object, place + 1 == chain.size())) return true;
        here_.clear();
        std::swap(here_, below_);
    }
    return false;
}

// True when a step matches the last object; else below_ holds what is to be tried at the next one.
bool WouldMatch::try_all_at(TqlObjectHandler& handler, bool is_last) {
    // What follows a recursive step may begin at the same object, so the list grows meanwhile.
    for (size_t i = 0; i < here_.steps.size(); ++i) {
        const size_t place = here_.steps[i];
        const Step& step = steps_[place];
        const size_t end = step.first_successor + step.successor_count;
        if (step.recursive())
            for (size_t successor = step.first_successor; successor < end; ++successor)
                here_.add(successor);
        if (test_.objectMatches(handler, *step.pattern) != 0) continue;
        if (is_last) return true;
        if (step.recursive()) {
            below_.add(place);
        } else if (!step.pattern->next.empty()) {
            for (size_t successor = step.first_successor; successor < end; ++successor)
                below_.add(successor);
        }
    }
    return false;
}

}  // namespace tqlengine::detail
