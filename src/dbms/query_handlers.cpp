#include "dbms/query_handlers.h"

#include "dbcache/resolver.h"
#include "dbcache/store.h"
#include "dbcache/version_source.h"
#include "dbms/subscribers.h"
#include "error/exception.h"
#include "tqlengine/requests.h"

namespace dbms {

namespace {

void take_new_version(EventContext& context) {
    context.request.new_version = context.services.versions.next();
}

}  // namespace

void ev_get_tql_class_names(EventContext& context, queues::event& received) {
    reply<queues::RETURN_TQL_CLASS_NAMES>(context, received, tqlengine::process_class_names());
}

void ev_get_tql_property_names(EventContext& context, queues::event& received) {
    reply<queues::RETURN_TQL_PROPERTY_NAMES>(context, received,
                                             tqlengine::process_property_names());
}

void ev_get_tql_reparentable_classes(EventContext& context, queues::event& received) {
    reply<queues::RETURN_TQL_REPARENTABLE_CLASSES>(
        context, received, tqlengine::process_reparentable_classes(context.request));
}

void ev_tql_select(EventContext& context, queues::event& received) {
    error::check(!received.exception, "dynamic cast failed");
    Tql_Select_Data& request = queues::data<queues::TQL_SELECT>(received);
    if ((request.flags & tqlengine::kSelectSubscribe) != 0)
        return context.services.subscribers.subscribe(received.peer, received.uid,
                                                      std::move(request));
    tqlengine::SelectReport report;
    reply_with<tqlengine::SelectEvent>(context, received,
                                       tqlengine::process_select(request, context.request, report));
    tqlengine::log_select(request, context.request, report);
}

void ev_tql_create(EventContext& context, queues::event& received) {
    take_new_version(context);
    reply<queues::RETURN_TQL_CREATE>(
        context, received,
        tqlengine::process_create(queues::data<queues::TQL_CREATE>(received), context.request));
}

void ev_tql_update(EventContext& context, queues::event& received) {
    take_new_version(context);
    reply<queues::RETURN_TQL_UPDATE>(
        context, received,
        tqlengine::process_update(queues::data<queues::TQL_UPDATE>(received), context.request));
}

void ev_tql_delete(EventContext& context, queues::event& received) {
    take_new_version(context);
    reply<queues::RETURN_TQL_DELETE>(
        context, received,
        tqlengine::process_delete(queues::data<queues::TQL_DELETE>(received), context.request));
}

bool filter_tql_create(EventContext& context, queues::event& received) {
    Tql_Create_Data& request = queues::data<queues::TQL_CREATE>(received);
    if (request.new_id.empty())
        request.new_id = tql::id_t::from_node_id(context.services.store.resolver().new_node_id());
    return true;
}

}  // namespace dbms
