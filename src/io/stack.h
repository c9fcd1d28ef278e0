// The stack: a selectable that lies on top of others. What waits for a high-level object (a whole
// event) runs the low-level work (reading pipes) in the same wait. The back holds the underlying
// selectables and does their work; the fronts are what selectors see. The underlying ones that are
// being watched are members of every selector that holds a front.
#pragma once

#include <vector>

#include "io/selectable.h"

namespace io {

class SelectorBase;
class StackedSelectableFront;

class StackedSelectableBack {
  public:
    StackedSelectableBack() = default;
    virtual ~StackedSelectableBack() = default;
    StackedSelectableBack(const StackedSelectableBack&) = delete;
    StackedSelectableBack& operator=(const StackedSelectableBack&) = delete;

    /// Does the work of a ready underlying selectable. May make fronts ready and change watches.
    virtual void underlyingIsReady(Selectable& underlying) = 0;

    /// Starts or stops watching `underlying`; a change to the present state does nothing, null is a
    /// fatal assertion.
    void setWatch(Selectable* underlying, bool on);
    [[nodiscard]] bool isWatched(const Selectable& underlying) const;

    // For fronts.
    void addSelector(SelectorBase& selector);
    /// One that the back doesn't know is a fatal assertion with `front_name`.
    void removeSelector(SelectorBase& selector, const StackedSelectableFront& front);

  private:
    struct Holder {
        SelectorBase* selector;
        size_t fronts;  ///< how many of our fronts it holds
    };

    std::vector<Selectable*> watched_;
    std::vector<Holder> holders_;
};

/// What a selector sees of a stack.
class StackedSelectableFront : public virtual Selectable {
  public:
    /// `back` must outlive the front.
    explicit StackedSelectableFront(StackedSelectableBack& back) : back_(back) {}

    [[nodiscard]] StackedSelectableBack& back() const { return back_; }
    void addedTo(SelectorBase& selector) override;
    void removedFrom(SelectorBase& selector) override;

  private:
    StackedSelectableBack& back_;
};

}  // namespace io
