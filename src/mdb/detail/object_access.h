// Bringing one object into memory, for the object store and for those of this folder that walk over
// objects without changing them. The contracts are those of ObjectStore::load_object() and
// fetch_object().
#pragma once

#include "mdb/block_layout.h"
#include "mdb/database.h"
#include "mdb/dobj.h"

namespace mdb::detail {

[[nodiscard]] dobj load_object(Database& database, block_handle_t handle);
/// The object as the open transaction sees it, to be read and not kept: a view of the cache unless
/// the transaction has changed the block. Throws like load_object().
[[nodiscard]] dobj current_object(Database& database, block_handle_t handle);
[[nodiscard]] dobj fetch_object(Database& database, block_handle_t handle);

}  // namespace mdb::detail
