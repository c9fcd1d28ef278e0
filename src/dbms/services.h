// What the handlers of events work with. Made by the server, handed to every handler; nothing here
// is kept beyond the event.
#pragma once

#include "log/channel_mask.h"
#include "platform/clock.h"
#include "queues/childqueue.h"
#include "queues/records/control.h"
#include "tqlengine/engine.h"
#include "tqlengine/request_context.h"

namespace dbcache {
class Store;
class VersionSource;
}  // namespace dbcache

namespace dbms {

class EventMeters;
class CustomNetChecks;
class Subscribers;
class TsdbCallbacks;

/// The long-lived parts of the server; all outlive the handling of any event.
struct Services {
    const platform::Clock& clock;
    queues::childqueue& queue;
    const control::Server_Configuration_Fields& config;
    tqlengine::Engine& engine;
    dbcache::Store& store;
    dbcache::VersionSource& versions;
    /// The channels of extra diagnostics that are switched on.
    const logging::ChannelMask& log_mask;
    EventMeters& meters;
    Subscribers& subscribers;
    TsdbCallbacks& tsdb_callbacks;
    CustomNetChecks& net_checks;
};

/// One event being handled.
struct EventContext {
    Services& services;
    tqlengine::RequestContext request;
};

/// Answers `asked` with an event of the class Event, which holds `content`; nothing is sent to an
/// asker that does not wait. Throws io::EEndOfStream when the asker is gone.
template <class Event, class Content>
void reply_with(EventContext& context, const queues::event& asked, Content content) {
    if (!queues::wants_reply(asked.uid) || asked.peer == queues::queue_t::none) return;
    context.services.queue.send(Event(asked.peer, asked.uid, std::move(content)));
}

/// The same with the event of number N.
template <queues::event_t N, class Record>
void reply(EventContext& context, const queues::event& asked, Record record) {
    reply_with<queues::devent<N>>(context, asked, std::move(record));
}

}  // namespace dbms
