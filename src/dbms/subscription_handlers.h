// The events of subscribers. What they mean is told in dbms/subscribers.h; a select, with or
// without a subscription, is among the query events.
#pragma once

#include "dbms/services.h"
#include "queues/event.h"

namespace dbms {

void ev_tql_acknowledge(EventContext& context, queues::event& received);
void ev_tql_forget(EventContext& context, queues::event& received);
void ev_tql_simple_subscribe(EventContext& context, queues::event& received);

}  // namespace dbms
