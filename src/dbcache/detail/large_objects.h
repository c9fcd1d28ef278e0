// Freeing what objects own outside of their records in the database: large objects.
//
// A chain of blocks goes in the transaction that takes the last reference to it away, so that after
// a crash either both are there or neither. One that is damaged must not keep its object from being
// changed or deleted: its blocks stay marked as they are, for the verifier to report, and the log
// says so.
#pragma once

#include <cstdint>
#include <optional>

namespace mdb {
class Database;
}

namespace dbcache {

class NodetypeSchema;
class PropertyChain;

namespace detail {

/// Frees the large object that begins at `block`, in the open transaction. Throws what tells of a
/// failed disk or a full journal.
void free_large_object(mdb::Database& database, uint32_t block);

/// Frees the large objects of the stored object behind `stored`, whose class is `schema`, in the
/// open transaction; not those that a new version of the subtype `kept_subtype` has as well. Costs
/// nothing for a class without such properties.
void free_large_objects(mdb::Database& database, const NodetypeSchema& schema,
                        const PropertyChain& stored, std::optional<uint32_t> kept_subtype = {});

}  // namespace detail

}  // namespace dbcache
