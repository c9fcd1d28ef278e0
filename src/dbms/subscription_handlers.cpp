#include "dbms/subscription_handlers.h"

#include "dbms/subscribers.h"
#include "error/exception.h"

namespace dbms {

void ev_tql_acknowledge(EventContext& context, queues::event& received) {
    context.services.subscribers.acknowledge(
        received.peer, queues::data<queues::TQL_ACKNOWLEDGE>(received).req_id_to_ack);
}

void ev_tql_forget(EventContext& context, queues::event& received) {
    const uint32_t request_id = queues::data<queues::TQL_FORGET>(received).req_id_to_forget;
    context.services.subscribers.forget(received.peer, request_id);
    reply<queues::RETURN_TQL_FORGET>(context, received, Return_Tql_Forget_Data{request_id, 0, {}});
}

void ev_tql_simple_subscribe(EventContext& context, queues::event& received) {
    error::check(!received.exception, "dynamic_cast in ev_tql_simple_subscribe failed");
    context.services.subscribers.subscribe_simply(
        received.peer, received.uid, queues::data<queues::TQL_SIMPLE_SUBSCRIBE>(received));
}

}  // namespace dbms
