// The events by which others reach the time series of an object: each is turned into requests to
// the time series store by the index that the object holds. Gets, appends and truncates wait for
// nothing; a put, a merge and the first data of an object wait for the store.
//
// A failure is told in the status of the reply and never ends the process.
#pragma once

#include <vector>

#include "dbms/services.h"
#include "queues/event.h"
#include "queues/records/tsdb_records.h"

namespace dbcache {
class ObjectHandler;
}

namespace dbms {

void ev_tsdb_get_data(EventContext& context, queues::event& received);
void ev_tsdb_put_data(EventContext& context, queues::event& received);
void ev_tsdb_merge_data(EventContext& context, queues::event& received);
void ev_tsdb_get_latest_data_record(EventContext& context, queues::event& received);
void ev_tsdb_append_data_record(EventContext& context, queues::event& received);
void ev_tsdb_append_data(EventContext& context, queues::event& received);
void ev_tsdb_truncate_old_data(EventContext& context, queues::event& received);

/// Stores data in the series of `property`, which is made first if there is none for data of this
/// type; its index is durable with the object when this returns, the data a little later. Waits for
/// the store. Throws errors::db_anomaly for a property that is no series and when the store
/// refuses, mdb::error_nullprop for one that the object doesn't have, error::EFatal and
/// io::EEndOfStream when the store is gone.
void putDataSeries(Services& services, dbcache::ObjectHandler& object, uint32_t property,
                   std::vector<tsdb::data_entry_t> data, uint32_t data_type);

}  // namespace dbms
