// io::Selectable: anything a selector can wait for. A selectable answers whether it is ready now;
// how the process is woken when that changes is the matter of SystemHandle (a file descriptor) and
// of the stack classes (stack.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace io {

class SelectorBase;
class SystemHandle;

class Selectable {
  public:
    Selectable() = default;
    /// Must have been removed from all selectors.
    virtual ~Selectable() = default;
    Selectable(const Selectable&) = delete;
    Selectable& operator=(const Selectable&) = delete;

    /// Appends the name, as messages show it, to `out`.
    virtual void name(std::string& out) const = 0;
    /// True when nothing can come of it any more.
    [[nodiscard]] virtual bool hasFailed() const { return false; }
    /// True when the operation that this object stands for can be done without blocking.
    [[nodiscard]] virtual bool isReady() const = 0;
    /// Asked after the system's wait named this object: is there still nothing to hand out?
    [[nodiscard]] virtual bool stillNothing() { return false; }
    /// Called before each wait of a selector that holds it. May change memberships.
    virtual void prepare() {}
    /// True if the object has a deadline; then fills in the microseconds left until it, below 1
    /// when it has passed and kNoDeadline_us for one that never comes.
    [[nodiscard]] virtual bool deadline(int64_t& left_us) const;
    /// Notes the selector, and tells it at once if the object is ready. Called by the selector
    /// only.
    virtual void addedTo(SelectorBase& selector);
    /// Forgets the selector; an unknown one is a fatal assertion. Called by the selector only.
    virtual void removedFrom(SelectorBase& selector);

    /// The descriptor that wakes the process for this object; null for objects without one.
    [[nodiscard]] virtual SystemHandle* systemHandle() { return nullptr; }

    /// name() as a string of its own.
    [[nodiscard]] std::string nameText() const;

    static constexpr int64_t kNoDeadline_us = INT64_MAX;

  private:
    std::vector<SelectorBase*> selectors_;
};

}  // namespace io
