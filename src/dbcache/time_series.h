// What objects have to do with time series: the making and dropping of a series while an object is
// written, and what a request for data needs to know of an object. The data itself is in another
// process, which knows a series by its index alone.
#pragma once

#include <cstdint>

#include "dbcache/work.h"
#include "queues/series_kinds.h"

namespace dbcache {

class NodetypeSchema;
class ObjectHandler;
class PropertyChain;
class Store;

using tsdb::continuous_layout;
using tsdb::enumerated_layout;
using tsdb::large_incident_layout;
using tsdb::small_incident_layout;
using tsdb::uptime_layout;

using series_data_t = tsdb::data_type_t;
using tsdb::kContinuousData;
using tsdb::kEnumeratedData;
using tsdb::kIncidentData;
using tsdb::kUptimeData;

/// Called allocateIf in the text of its assertion. For afterUpdate hooks: brings the series in
/// `property` of the object `handler` whose new values are `work` in line with whether it should
/// have one. The write that is under way stores the index. A series that is made waits for the
/// store of time series and goes again if the write is aborted; one that is given up goes when the
/// write has committed. Where a Store has no store of time series, the object stays without one
/// until its first data. A property that the object's new subtype doesn't have gives up the series
/// that the old subtype had; a series without a layout, and one for such a property, is a fatal
/// assertion. Throws errors::tql with code 14 when the store of time series refuses,
/// io::EEndOfStream when it is known to be gone, and error::EFatal when it goes meanwhile.
void allocate_if(ObjectHandler& handler, bool should_be_allocated, uint32_t property,
                 const tsdb::time_series_layout_t* layout, WorkArray& work);
/// allocate_if() for an object that always has this series, and is of use without one: with the
/// store of time series known to be gone the series is left to the object's next write or its first
/// data, whichever comes first.
void allocate_when_possible(ObjectHandler& handler, uint32_t property,
                            const tsdb::time_series_layout_t& layout, WorkArray& work);

/// The index of the series in `property` of a stored object; tsdb::kNoSeries when it has none.
[[nodiscard]] uint32_t stored_series(const ObjectHandler& object, uint32_t property);

/// The index of the series in `property`. Throws errors::db_anomaly when the class has no series,
/// the object no record of this one, or when there is none yet.
[[nodiscard]] uint32_t tsdb_index(const NodetypeSchema& schema, const PropertyChain& chain,
                                  uint32_t property);
/// The same for a stored object. Throws mdb::error_generic too.
[[nodiscard]] uint32_t tsdb_index(const ObjectHandler& object, uint32_t property);
/// The kind of its data, a series_data_t. Throws errors::db_anomaly where the class doesn't tell.
[[nodiscard]] uint32_t tsdb_data_type(const ObjectHandler& object, uint32_t property);

}  // namespace dbcache
