#include "io/stack.h"

#include <algorithm>

#include "error/exception.h"
#include "io/selector.h"

namespace io {

bool StackedSelectableBack::isWatched(const Selectable& underlying) const {
    return std::find(watched_.begin(), watched_.end(), &underlying) != watched_.end();
}

void StackedSelectableBack::setWatch(Selectable* underlying, bool on) {
    error::check(underlying != nullptr, "StackedSelectableBack underlying pointer is null");
    if (isWatched(*underlying) == on) return;
    if (on)
        watched_.push_back(underlying);
    else
        std::erase(watched_, underlying);
    for (const Holder& holder : holders_) {
        if (on)
            holder.selector->add(*underlying, this);
        else
            holder.selector->remove(*underlying);
    }
}

void StackedSelectableBack::addSelector(SelectorBase& selector) {
    for (Holder& holder : holders_) {
        if (holder.selector != &selector) continue;
        ++holder.fronts;
        return;
    }
    holders_.push_back({&selector, 1});
    for (Selectable* underlying : watched_) selector.add(*underlying, this);
}

void StackedSelectableBack::removeSelector(SelectorBase& selector,
                                           const StackedSelectableFront& front) {
    const auto holder =
        std::find_if(holders_.begin(), holders_.end(),
                     [&](const Holder& candidate) { return candidate.selector == &selector; });
    error::check(holder != holders_.end(), "StackedSelectableBack::removeSelector got unknown {}",
                 front.nameText());
    if (--holder->fronts != 0) return;
    holders_.erase(holder);
    for (Selectable* underlying : watched_) selector.remove(*underlying);
}

void StackedSelectableFront::addedTo(SelectorBase& selector) {
    selector.holdFront(*this);
    back_.addSelector(selector);
    Selectable::addedTo(selector);
}

void StackedSelectableFront::removedFrom(SelectorBase& selector) {
    selector.dropFront(*this);
    back_.removeSelector(selector, *this);
    Selectable::removedFrom(selector);
}

}  // namespace io
