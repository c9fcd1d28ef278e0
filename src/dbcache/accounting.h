// Accounting: every domain and node knows how many checks and nodes lie below it without counting.
// A write that changes what an object counts for carries the difference up the tree in its own
// transaction:
//
//   get_use() before -- change --> get_use() after --> get_use_diff() --> accountParent()
//
// What an object counts for by itself is its class's getUse(); what becomes of a difference on its
// way past an object is its class's account(). The counters are ordinary properties of the kind
// PropertyCountSchema. How they are worked out anew from what is stored: accounting_rebuild.h.
//
// Arithmetic that leaves the range of a difference or of a counter is a fatal assertion.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "dbcache/nodetype_schema.h"

namespace dbcache {

class StoreTransaction;

/// A node's own counters, and whether its `keySecret` is other than zero.
struct NodeCounts {
    uint32_t net_checks = 0;
    uint32_t agent_checks = 0;
    uint32_t snmp_checks = 0;
    uint32_t esxi_checks = 0;
    bool has_key = false;
};

/// The counter of the one class of nodes that such a node falls in; none if it falls in none.
[[nodiscard]] std::optional<uint32_t> node_class_counter(const NodeCounts& counts);
/// What such a node counts for beside its checks.
[[nodiscard]] UseMap node_use(const NodeCounts& counts);

/// `counter` changed by `difference`.
[[nodiscard]] uint32_t add_to_counter(uint32_t counter, int64_t difference);
/// Adds `difference` to the entry of `counter`.
void add_use(UseMap& use, uint32_t counter, int64_t difference);

/// What an object with the values in `work` counts for: its own contribution, and what its children
/// gave; without entries of 0.
[[nodiscard]] UseMap get_use(const ObjectHandler& handler, const WorkArray& work);
/// `after` less `before`, without entries of 0; empty when there is nothing to do.
[[nodiscard]] UseMap get_use_diff(const UseMap& before, const UseMap& after);

/// Opens the transaction of a write to `handler`'s object and carries `diff` to all ancestors in
/// it, up to the root or below the first mount point. The way up comes first: a failure there has
/// written nothing. A later one undoes what was written. An empty `diff` only opens the
/// transaction. Throws errors::tql and mdb::error_generic. Costs one store per ancestor.
[[nodiscard]] std::unique_ptr<StoreTransaction> accountParent(ObjectHandler& handler,
                                                              const UseMap& diff);

}  // namespace dbcache
