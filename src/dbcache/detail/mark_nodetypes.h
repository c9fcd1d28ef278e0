// Which stored objects belong into the mark lists, told by their records alone, so that lists can
// be built and verified where no class is known.
#pragma once

#include <cstdint>

#include "mdb/dobj.h"

namespace dbcache::detail {

/// What an object's nodetype means for a mark list.
enum class mark_role_t : uint8_t {
    /// Neither it nor anything below it is in the list.
    outside,
    /// Never marked itself, but objects below it may be.
    on_the_way,
    /// Its own value decides.
    by_value,
    always_marked
};

/// `mark` is prop::activeMark or prop::inheritsMark; throws error::EFatal for another number.
[[nodiscard]] mark_role_t mark_role(uint32_t mark, uint32_t nodetype);

/// Whether an object of this role is marked. Throws mdb::error_nullprop when `active` must say so
/// and isn't there.
[[nodiscard]] bool is_marked(uint32_t mark, mark_role_t role, const mdb::dobj& object);

}  // namespace dbcache::detail
