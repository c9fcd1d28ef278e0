#include "dbms/event_table.h"

#include "dbms/netcheck_handlers.h"
#include "dbms/node_class_handlers.h"
#include "dbms/query_handlers.h"
#include "dbms/subscription_handlers.h"
#include "dbms/tsdb_handlers.h"

namespace dbms {

EventTable make_event_table() {
    EventTable table{};
    table[queues::GET_TQL_CLASS_NAMES] = {ev_get_tql_class_names, nullptr, kAnswered};
    table[queues::GET_TQL_PROPERTY_NAMES] = {ev_get_tql_property_names, nullptr, kAnswered};
    table[queues::GET_TQL_REPARENTABLE_CLASSES] = {ev_get_tql_reparentable_classes, nullptr,
                                                   kAnswered};
    table[queues::TQL_SELECT] = {ev_tql_select, nullptr, kAnswered};
    table[queues::TQL_CREATE] = {ev_tql_create, filter_tql_create, kAnswered};
    table[queues::TQL_UPDATE] = {ev_tql_update, nullptr, kAnswered};
    table[queues::TQL_DELETE] = {ev_tql_delete, nullptr, kAnswered};
    table[queues::TQL_SIMPLE_SUBSCRIBE] = {ev_tql_simple_subscribe, nullptr, 0};
    table[queues::TQL_ACKNOWLEDGE] = {ev_tql_acknowledge, nullptr, 0};
    table[queues::TQL_FORGET] = {ev_tql_forget, nullptr, kAnswered};
    table[queues::NODECLASS_TRANSLATE] = {ev_nodeclass_translate, nullptr, kAnswered};
    table[queues::TSDB_GET_DATA] = {ev_tsdb_get_data, nullptr, kAnswered};
    table[queues::TSDB_PUT_DATA] = {ev_tsdb_put_data, nullptr, kAnswered};
    table[queues::TSDB_MERGE_DATA] = {ev_tsdb_merge_data, nullptr, kAnswered};
    table[queues::TSDB_GET_LATEST_DATA_RECORD] = {ev_tsdb_get_latest_data_record, nullptr,
                                                  kAnswered};
    table[queues::TSDB_APPEND_DATA_RECORD] = {ev_tsdb_append_data_record, nullptr, kAnswered};
    table[queues::TSDB_APPEND_DATA] = {ev_tsdb_append_data, nullptr, kAnswered};
    table[queues::TSDB_TRUNCATE_OLD_DATA] = {ev_tsdb_truncate_old_data, nullptr, kAnswered};
    table[queues::UPDATE_NETCHECKS] = {ev_update_netchecks, nullptr, 0};
    table[queues::GET_NETCHECK_INFO] = {ev_get_netcheck_info, nullptr, kAnswered};
    return table;
}

}  // namespace dbms
