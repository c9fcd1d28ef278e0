// The counters worked out from the stored objects, by a walk from the root that counts what stands
// there: to write them where they are missing, or to compare them with what is stored. It makes no
// handlers for what it counts and asks no class, so that it tells the faults of both.
//
// The walk counts, below each domain, what its domains and nodes come to; below a node its net
// checks, and the active checks in its groups of checks and the groups in those. A domain below a
// mount point has counters of its own that nobody above it shares.
#pragma once

#include <memory>
#include <string>

#include "dbcache/store.h"
#include "error/exception.h"
#include "mdb/verify.h"

namespace dbcache {

/// A stored counter isn't what the objects come to.
class VerifyError : public error::Exception {
  public:
    using Exception::Exception;
};

/// Whether one of the counters by which the root tells that accounting was never done is null. The
/// root must be stored. Throws mdb::error_generic.
[[nodiscard]] bool accounting_is_missing(const Store::Parts& parts);

/// Writes all counters of the domains, and those of nodes and groups that are wrong; the root's
/// last, so that a walk that is cut off is begun again at the next start. For the start, while none
/// of them has a handler. Costs a read of each object from the root down to the checks, and a store
/// for each domain. Throws mdb::error_generic.
void rebuild_accounting(const Store::Parts& parts);

/// Rebuilds the counters of a database that lacks them, and logs so.
void ensure_accounting(const Store::Parts& parts);

/// Compares all counters of domains, nodes and groups of checks; throws VerifyError for the first
/// that is wrong, and mdb::error_generic for objects that can't be read.
void verify_accounting(const Store::Parts& parts);

/// The same for a verification of files, where all faults are collected. Rule:
///   A1 a counter is what the objects below come to
/// A database whose root lacks counters is left alone: the next start writes them. Costs about 100
/// bytes of memory for each object from the root down to the checks.
[[nodiscard]] std::unique_ptr<mdb::ObjectCheck> make_accounting_check();

}  // namespace dbcache
