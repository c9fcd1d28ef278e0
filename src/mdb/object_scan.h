// A walk over all objects of a database in the order of their places, without the indexes, so that
// it works where these are damaged. It knows nothing of what objects mean.
#pragma once

#include <functional>

#include "mdb/dobj.h"

namespace mdb {

class Database;

/// Calls `visit` with each object of the committed state whose slot is whole; its records may still
/// be damaged. The object lives for the call only, which must not use the database. What lies
/// behind a damaged slot in its block is passed over. Throws error_io.
void scan_objects(Database& database, const std::function<void(const dobj&)>& visit);

}  // namespace mdb
