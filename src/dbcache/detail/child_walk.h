// The walk over the stored children of an object, by an index of parents.
#pragma once

#include <array>
#include <span>

#include "dbcache/fixed_ids.h"
#include "dbcache/object_handler.h"
#include "dbcache/resolver.h"
#include "error/exception.h"
#include "mdb/index.h"

namespace dbcache::detail {

/// Calls `visit` with a reference to each child of `parent` in the order of index `index`, until it
/// gives false. An entry whose object can't be loaded is a fatal assertion.
template <class Visit>
void walk_children(Store& store, const NodeId& parent, uint32_t index, Visit&& visit) {
    // A look-up in the object cache waits for memory most of the time, so that of some is begun
    // before the first is finished.
    constexpr size_t kAhead = 8;
    std::array<mdb::block_handle_t, kAhead> ahead;
    mdb::IndexTable& indexes = store.indexes();
    for (auto it = indexes.non_unique_search(index, parent); it.at_searched_key();) {
        size_t count = 0;
        for (; count < kAhead && it.at_searched_key(); indexes.iterator_next(it)) {
            ahead[count] = indexes.iterator_value(it);
            store.cache().prefetch(ahead[count++]);
        }
        for (const mdb::block_handle_t& handle : std::span(ahead).first(count)) {
            ObjectHandlerRef child = store.resolver().find_at(handle);
            error::check(static_cast<bool>(child),
                         "Object load failed in generic object handler: {} at {}:{}", parent,
                         handle.block, handle.offset);
            if (!visit(std::move(child))) return;
        }
    }
}

}  // namespace dbcache::detail
