#include "io/selector.h"

#include <algorithm>
#include <string>

#include "error/exception.h"
#include "io/exception.h"
#include "io/stack.h"
#include "io/system_handle.h"

namespace io {

SelectorBase::~SelectorBase() {
    error::check(!hasAvailable(), "avail not empty in ~SelectorBase");
}

SelectorBase::Member* SelectorBase::findMember(const Selectable& selectable) {
    for (Member& member : members_)
        if (member.selectable == &selectable) return &member;
    return nullptr;
}

bool SelectorBase::isMember(const Selectable& selectable) const {
    return std::any_of(members_.begin(), members_.end(),
                       [&](const Member& member) { return member.selectable == &selectable; });
}

void SelectorBase::add(Selectable& selectable, StackedSelectableBack* owner) {
    error::check(!isMember(selectable), "{} added twice to Selector", selectable.nameText());
    SystemHandle* handle = selectable.systemHandle();
    if (handle != nullptr) handleAdded(*handle);
    if (handle != nullptr && !handle->completesIo()) ++plain_handles_;
    members_.push_back({&selectable, owner, handle, false});
    ++membership_changes_;
    selectable.addedTo(*this);
}

void SelectorBase::remove(Selectable& selectable) {
    const Member* member = findMember(selectable);
    error::check(member != nullptr, "Unknown {} removed twice from Selector",
                 selectable.nameText());
    if (member->handle != nullptr) handleRemoved(*member->handle);
    if (member->handle != nullptr && !member->handle->completesIo()) --plain_handles_;
    if (member->found)
        avail_.erase(std::find(avail_.begin() + static_cast<ptrdiff_t>(avail_head_), avail_.end(),
                               &selectable));
    members_.erase(members_.begin() + (member - members_.data()));
    ++membership_changes_;
    selectable.removedFrom(*this);
}

void SelectorBase::dropFront(StackedSelectableFront& front) {
    std::erase(fronts_, &front);
}

void SelectorBase::noteReady(Selectable& selectable) {
    Member* member = findMember(selectable);
    error::check(member != nullptr, "SelectorBase::processReady got unknown Selectable {}",
                 selectable.nameText());
    if (member->found) return;
    member->found = true;
    avail_.push_back(&selectable);
}

void SelectorBase::processReady(Selectable& selectable) {
    const Member* member = findMember(selectable);
    error::check(member != nullptr, "SelectorBase::processReady got unknown Selectable {}",
                 selectable.nameText());
    StackedSelectableBack* owner = member->owner;
    if (owner == nullptr) {
        noteReady(selectable);
        return;
    }
    owner->underlyingIsReady(selectable);
    for (size_t i = 0; i < fronts_.size(); ++i) {
        StackedSelectableFront& front = *fronts_[i];
        if (&front.back() == owner && front.isReady()) processReady(front);
    }
}

// The first of the found members that still is ready and belongs to no stack. Does the work of
// those that do.
Selectable* SelectorBase::takeAvailable() {
    while (hasAvailable()) {
        Selectable* first = avail_[avail_head_++];
        if (!hasAvailable()) {
            avail_.clear();
            avail_head_ = 0;
        }
        Member* member = findMember(*first);
        error::check(member != nullptr, "pollImpl gave unknown selectable {}", first->nameText());
        member->found = false;
        if (!first->isReady()) continue;
        if (member->owner == nullptr) return first;
        processReady(*first);
    }
    return nullptr;
}

// True if a stack did some work, which may have made any member ready.
bool SelectorBase::processReadyMembers() {
    const uint64_t changes_before = membership_changes_;
    bool worked = false;
    for (size_t i = 0; i < members_.size(); ++i) {
        const Member member = members_[i];
        if (member.handle != nullptr && !member.handle->completesIo()) continue;
        if (!member.selectable->isReady()) continue;
        worked = worked || member.owner != nullptr;
        processReady(*member.selectable);
    }
    return worked || membership_changes_ != changes_before;
}

void SelectorBase::lookAtSystemInPassing() {
    if (plain_handles_ == 0 || ++selects_in_a_row_ < kSelectsInARow) return;
    selects_in_a_row_ = 0;
    named_.clear();
    wait(0, named_);
    processNamed();
}

Selectable* SelectorBase::memberOfLowestDeadline(int64_t& left_us) const {
    Selectable* lowest = nullptr;
    left_us = Selectable::kNoDeadline_us;
    for (const Member& member : members_) {
        int64_t member_left_us = 0;
        if (!member.selectable->deadline(member_left_us) || member_left_us >= left_us) continue;
        left_us = member_left_us;
        lowest = member.selectable;
    }
    return lowest;
}

void SelectorBase::processNamed() {
    for (Selectable* selectable : named_) {
        // The work for one may have ended the membership of another.
        if (!isMember(*selectable) || selectable->stillNothing()) continue;
        processReady(*selectable);
    }
}

// False if nothing became ready until the time ran out.
bool SelectorBase::waitForSystem(wait_t wait_kind) {
    for (size_t i = 0; i < members_.size(); ++i) members_[i].selectable->prepare();
    if (hasAvailable()) return true;
    selects_in_a_row_ = 0;

    int64_t left_us = 0;
    Selectable* next_due = memberOfLowestDeadline(left_us);
    const int64_t timeout_us =
        wait_kind == wait_t::non_blocking ? 0 : std::max<int64_t>(left_us, 0);
    named_.clear();
    if (wait(timeout_us, named_)) {
        processNamed();
        return true;
    }
    if (wait_kind == wait_t::non_blocking) return false;
    if (next_due != nullptr && next_due->isReady()) processReady(*next_due);
    return true;
}

Selectable& SelectorBase::select(wait_t wait_kind) {
    lookAtSystemInPassing();
    for (;;) {
        if (Selectable* found = takeAvailable()) return *found;
        const bool worked = processReadyMembers();
        if (hasAvailable() || worked) continue;
        if (!waitForSystem(wait_kind)) throw ENotReady("Selector");
    }
}

bool OsSelector::wait(int64_t timeout_us, std::vector<Selectable*>& named) {
    const auto ready = poller_.wait(timeout_us == Selectable::kNoDeadline_us ? -1 : timeout_us);
    for (void* tag : ready) {
        auto* handle = static_cast<SystemHandle*>(tag);
        if (handle->completesIo())
            handle->systemReady();
        else
            named.push_back(handle);
    }
    return !ready.empty();
}

void OsSelector::handleAdded(SystemHandle& handle) {
    poller_.add(handle.fd(), handle.interest(), &handle);
}

void OsSelector::handleRemoved(SystemHandle& handle) {
    poller_.remove(handle.fd());
}

void Selector<int>::add(Selectable& selectable, int value) {
    error::check(values_.emplace(&selectable, value).second, "Added selectable {} twice",
                 selectable.nameText());
    SelectorBase::add(selectable);
}

void Selector<int>::remove(Selectable& selectable) {
    SelectorBase::remove(selectable);
    values_.erase(&selectable);
}

int Selector<int>::value(const Selectable& selectable) const {
    const auto found = values_.find(&selectable);
    error::check(found != values_.end(), "Selector has no value for {}", selectable.nameText());
    return found->second;
}

}  // namespace io
