// Stored records as values of queries, by the type that a record has and the kind of its property
// in the object's class: what a database holds can be shown without the classes that wrote it.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "mdb/dobj.h"
#include "mdb/property.h"

namespace mdb {
class Database;
}

namespace cli {

/// The value of a record as JSON, in the form of the gateway (wapi/json_values.h): plain where the
/// value is of the property's kind in this class, with its type elsewhere. Mark records and types
/// that this build doesn't know have forms of their own: {"type": "mark", ...}, {"type": 99,
/// "bytes": BASE64}. A large object is read. Throws mdb::error_generic for a record or large object
/// that can't be read.
[[nodiscard]] nlohmann::ordered_json stored_value_to_json(mdb::Database& database,
                                                          uint32_t class_number,
                                                          const mdb::RecordView& record);

}  // namespace cli
