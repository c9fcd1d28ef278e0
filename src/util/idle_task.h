// Work that is done in small steps when nothing else waits. The main loop asks the tasks it knows
// in turn; one poll for input stands between two steps.
#pragma once

namespace idle {

class IdleTask {
  public:
    virtual ~IdleTask() = default;

    /// Whether there is something to do. Does no work.
    [[nodiscard]] virtual bool has_work() const = 0;
    /// Does one step, short enough that an arriving event can wait for it.
    virtual void doWork() = 0;
};

}  // namespace idle
