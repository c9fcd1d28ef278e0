// What makes a database fit to serve: the sequence object, the root object, the further indexes and
// the objects of the cluster's settings. Each is a step of the server's start, called in the order
// in which it stands here; the first three before there is a Store.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "dbcache/store.h"
#include "tql/version.h"
#include "tqlengine/request_context.h"

namespace dbcache {

/// The format number of a database that this server makes or has converted.
inline constexpr uint32_t kDatabaseFormat = 12;

/// What the sequence object holds.
struct Sequence {
    uint64_t ring_sequence = 0;
    uint32_t format = kDatabaseFormat;
};

/// Reads the sequence object. When it is missing, `last_ring_sequence` is asked for the ring
/// sequence that is kept outside of the database, and the object is stored.
[[nodiscard]] Sequence read_sequence(
    const Store::Parts& parts, const std::function<std::optional<uint64_t>()>& last_ring_sequence);
/// Stores both numbers in the sequence object, durably.
void store_sequence(const Store::Parts& parts, const Sequence& sequence);

/// Makes the root object if there is none.
void ensure_root(const Store::Parts& parts);

/// Makes and fills the indexes 2 to 5 that the database lacks; corrects index 2 where it shares
/// blocks with objects. Needs the root object. Throws error::syserror.
void check_indexes(const Store::Parts& parts, uint32_t format);

/// Makes the objects 0.512 and 0.513 if they aren't there, under the version of `context`. No
/// transaction may be open. Fatal assertions where something else has their ids.
void ensure_cluster_config(Store& store, tqlengine::RequestContext& context);

}  // namespace dbcache
