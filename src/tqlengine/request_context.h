// What holds for one event only: who asks, under which version changes are made, on whose behalf.
// The dispatcher makes one for each event and hands it down; nothing keeps it.
#pragma once

#include <cstdint>

#include "platform/clock.h"
#include "queues/event_types.h"
#include "tql/version.h"
#include "util/node_id.h"

namespace tqlengine {

class Engine;

struct RequestContext {
    /// Where writes announce themselves (TqlUpdateWatcher).
    Engine& engine;
    const platform::Clock& clock;
    /// The endpoint whose event is being handled.
    queues::queue_t sender = queues::queue_t::none;
    /// The version that objects changed by this event take; empty for events that change nothing.
    tql::version_t new_version;
    /// On whose behalf a write runs; null outside of writes and when the asker names nobody.
    NodeId user;
};

}  // namespace tqlengine
