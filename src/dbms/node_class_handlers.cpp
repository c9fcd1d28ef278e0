#include "dbms/node_class_handlers.h"

#include "dbcache/fake_object_handler.h"
#include "dbcache/id_translation.h"
#include "error/exception.h"
#include "queues/records/dbms_tql.h"
#include "tql/errors.h"

namespace dbms {

namespace {

tqlengine::HandlerRef object_asked_for(Services& services, const NodeClass_Translate_Data& asked) {
    if (!asked.id.empty()) return services.engine.get(asked.id);
    static_cast<void>(services.engine.get(asked.parent));
    return tqlengine::HandlerRef(
        new dbcache::FakeObjectHandler(services.store, NodeId{}, asked.parent));
}

Return_NodeClass_Translate_Data translated(Services& services,
                                           const NodeClass_Translate_Data& asked) {
    const tqlengine::HandlerRef object = object_asked_for(services, asked);
    const dbcache::IdTranslation translation(services.store, *object, asked.inherits.to_node_id());
    Return_NodeClass_Translate_Data returned;
    for (const tql::id_t& reference : asked.references) {
        returned.ids.push_back({.inside = false, .id = reference});
        if (reference.size() > 2) {  // a group of a node, which no class contains
            returned.ids.push_back({.inside = true, .id = reference});
            continue;
        }
        for (const NodeId& candidate : translation.candidates(reference.to_node_id()))
            returned.ids.push_back({.inside = true, .id = tql::id_t::from_node_id(candidate)});
    }
    return returned;
}

}  // namespace

void ev_nodeclass_translate(EventContext& context, queues::event& received) {
    const auto& asked = queues::data<queues::NODECLASS_TRANSLATE>(received);
    try {
        reply<queues::RETURN_NODECLASS_TRANSLATE>(context, received,
                                                  translated(context.services, asked));
    } catch (const errors::tql& failure) {
        // The reply has no place for a code: the asker gets the text.
        throw errors::db_anomaly(failure.text());
    }
}

}  // namespace dbms
