// The keys under which one object stands in the indexes.
#pragma once

#include "mdb/dobj.h"
#include "mdb/index.h"

namespace mdb::detail {

/// The properties that the indexes know. What else they mean is the schema's business.
namespace key_property {
inline constexpr uint32_t own_id = 0;
inline constexpr uint32_t parent = 2;
inline constexpr uint32_t inherits = 59;
/// A bool: only objects in which it is true stand in the active-parent index.
inline constexpr uint32_t active = 502;
inline constexpr uint32_t master_id = 3800;
inline constexpr uint32_t alert_notify = 3901;
}  // namespace key_property

/// Reads the keys of `object` in one pass over its records; none at all when it has no data. Throws
/// error_wrongtype when a key property is of another type, error_need_repair for damaged records.
ObjectKeys read_object_keys(const dobj& object);

}  // namespace mdb::detail
