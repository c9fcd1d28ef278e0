// TqlUpdateWatcher: the scope object around every write to one object. It is how those who watch
// the tree learn of the write: before the write, since the object may leave what somebody selected,
// and after it, since it may enter. A handler refuses to be changed while none is open on it.
//
//             built
//               |
//             [open] --- close(), destructor ---> operation hook, second pass ---> [closed]
//               |
//               +------- forget(): the object is gone, nobody may look at it ----> [closed]
#pragma once

#include "tqlengine/object_handler.h"

namespace tqlengine {

class Engine;

/// Whether the object is there before the write.
enum class watch_t { existing, create };

class TqlUpdateWatcher {
  public:
    /// Opens the watcher: watched() of the handler becomes true, and for an existing object the
    /// notify pass runs on the state before the write. A handler that is watched already is a fatal
    /// assertion.
    TqlUpdateWatcher(Engine& engine, HandlerRef handler, watch_t mode);
    TqlUpdateWatcher(const TqlUpdateWatcher&) = delete;
    TqlUpdateWatcher& operator=(const TqlUpdateWatcher&) = delete;
    /// Closes if still open, so that a failed write closes its watcher too.
    ~TqlUpdateWatcher();

    /// Tells of the create or update, runs the notify pass on the state after the write and gives
    /// the handler back. Nothing happens if it is closed already.
    void close() noexcept;

    /// Ends watching without a word, because the object is gone. Gives the reference back to the
    /// caller. A closed watcher is a fatal assertion.
    HandlerRef forget();

  private:
    Engine& engine_;
    HandlerRef handler_;
    watch_t mode_;
};

}  // namespace tqlengine
