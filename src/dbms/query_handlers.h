// The query events: selects, the three writes, and the names that a client needs to speak of
// classes and properties. What a request means is told in tqlengine/requests.h; here are only the
// ways from the event and back.
#pragma once

#include "dbms/services.h"
#include "queues/event.h"

namespace dbms {

void ev_get_tql_class_names(EventContext& context, queues::event& received);
void ev_get_tql_property_names(EventContext& context, queues::event& received);
void ev_get_tql_reparentable_classes(EventContext& context, queues::event& received);
void ev_tql_select(EventContext& context, queues::event& received);
void ev_tql_create(EventContext& context, queues::event& received);
void ev_tql_update(EventContext& context, queues::event& received);
void ev_tql_delete(EventContext& context, queues::event& received);

/// Gives a create that names no id a fresh one. Always lets the handler run.
bool filter_tql_create(EventContext& context, queues::event& received);

}  // namespace dbms
