// Selectors: wait until one of their members is ready and hand it out. Members are few (tens), so
// they stand in a plain list in order of adding, and each select asks every member. One thread; a
// selectable may be in several selectors, and a wait in one of them may run inside a handler that
// another one started.
//
// Order of a select: what was found ready before, then every member that doesn't need the system to
// tell, then the system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "io/selectable.h"
#include "platform/poller.h"

namespace io {

class StackedSelectableBack;
class StackedSelectableFront;

enum class wait_t { blocking, non_blocking };

/// Members, their stack owners, and what was found ready.
class SelectorBase {
  public:
    SelectorBase() = default;
    /// Must be empty of found members; remove the members first.
    virtual ~SelectorBase();
    SelectorBase(const SelectorBase&) = delete;
    SelectorBase& operator=(const SelectorBase&) = delete;

    /// Enters `selectable`, which must outlive its membership; twice is a fatal assertion. `owner`
    /// is the stack object whose underlying it is, or null.
    void add(Selectable& selectable, StackedSelectableBack* owner = nullptr);
    /// Drops it; one that isn't there is a fatal assertion.
    void remove(Selectable& selectable);
    [[nodiscard]] bool isMember(const Selectable& selectable) const;

    /// The next ready member that belongs to no stack. Non-blocking with nothing ready: ENotReady,
    /// nothing changed. A failed wait is an error::ESystemError.
    Selectable& select(wait_t wait);

    /// Looks after a member that is ready: the low-level work of its stack, or a place in the list
    /// of found members.
    void processReady(Selectable& selectable);
    /// A member found itself ready; the next select looks after it before anything else. For
    /// selectables.
    void noteReady(Selectable& selectable);

    // For stack fronts, when they are added and removed.
    void holdFront(StackedSelectableFront& front) { fronts_.push_back(&front); }
    void dropFront(StackedSelectableFront& front);

    /// A selector with plain descriptors also looks at the system, without waiting, once in this
    /// many selects that did without: a steady flow of messages must not hide a signal or the end
    /// of a child.
    static constexpr unsigned kSelectsInARow = 32;

  protected:
    /// One wait of the system for at most `timeout_us` (kNoDeadline_us: no limit, 0: no wait). Lets
    /// the handles that complete i/o do so, and fills `named` with the others that are ready. False
    /// if the time ran out.
    virtual bool wait(int64_t timeout_us, std::vector<Selectable*>& named) = 0;
    virtual void handleAdded(SystemHandle& handle) = 0;
    virtual void handleRemoved(SystemHandle& handle) = 0;

  private:
    struct Member {
        Selectable* selectable;
        StackedSelectableBack* owner;
        SystemHandle* handle;  ///< null for members that the system knows nothing of
        bool found;            ///< stands in avail_
    };

    Member* findMember(const Selectable& selectable);
    Selectable* takeAvailable();
    bool processReadyMembers();
    void lookAtSystemInPassing();
    bool waitForSystem(wait_t wait_kind);
    Selectable* memberOfLowestDeadline(int64_t& left_us) const;
    void processNamed();
    [[nodiscard]] bool hasAvailable() const { return avail_head_ < avail_.size(); }

    std::vector<Member> members_;
    uint64_t membership_changes_ = 0;
    std::vector<StackedSelectableFront*> fronts_;
    std::vector<Selectable*> avail_;
    size_t avail_head_ = 0;
    std::vector<Selectable*> named_;
    size_t plain_handles_ = 0;  ///< members that only the system knows to be ready
    unsigned selects_in_a_row_ = 0;
};

/// The part that talks to the system: epoll over the members' descriptors.
class OsSelector : public SelectorBase {
  protected:
    bool wait(int64_t timeout_us, std::vector<Selectable*>& named) override;
    void handleAdded(SystemHandle& handle) override;
    void handleRemoved(SystemHandle& handle) override;

  private:
    platform::Poller poller_;
};

/// A plain selector.
class BareSelector final : public OsSelector {};

template <class Value>
class Selector;

/// A selector with a value of the user's for each member.
template <>
class Selector<int> final : public OsSelector {
  public:
    /// A second add of the same selectable is a fatal assertion.
    void add(Selectable& selectable, int value);
    void remove(Selectable& selectable);
    /// The value given at add(); an unknown selectable is a fatal assertion.
    [[nodiscard]] int value(const Selectable& selectable) const;

  private:
    std::map<const Selectable*, int> values_;
};

}  // namespace io
