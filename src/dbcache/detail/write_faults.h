// Turns faults of the store that a write can meet into failures of the request. What tells of a
// broken disk or of a fault in the server passes through and ends the process.
#pragma once

#include "mdb/errors.h"
#include "tql/errors.h"

namespace dbcache::detail {

/// Runs `write`; a journal or database without room, an object too large for a block and damage to
/// what is stored become errors::tql with code 14.
template <class Write>
decltype(auto) with_faults_as_failures(Write&& write) {
    try {
        return write();
    } catch (const mdb::error_io&) {
        throw;
    } catch (const mdb::error_internal&) {
        throw;
    } catch (const mdb::error_generic& fault) {
        throw errors::tql(errors::ERR_BACKEND, fault.text());
    }
}

}  // namespace dbcache::detail
