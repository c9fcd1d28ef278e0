// Store: the object layer in one piece. It owns the cache of handlers, the indexes of siblings and
// the resolver, and ties them to the database, whose hooks it takes. Everything that works on
// stored objects gets a reference to it.
//
// One store works on one database. It must go before the database, its indexes and its schemas do.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "dbcache/object_cache.h"
#include "dbcache/sibling_index.h"
#include "dbcache/sibling_key_index.h"
#include "mdb/block_layout.h"
#include "mdb/journal.h"
#include "queues/records/tsdb_records.h"
#include "tqlengine/object_handler.h"
#include "util/node_id.h"

namespace mdb {
class Database;
class IndexTable;
class ObjectStore;
}  // namespace mdb

namespace platform {
class Clock;
}

namespace dbcache {

class DbcacheIdResolver;
class ObjectHandler;
class ObjectRecord;
enum class hold_t : uint8_t;
class SchemaTable;
class StoreTransaction;

using ObjectHandlerRef = tqlengine::BasicHandlerRef<ObjectHandler>;

class Store {
  public:
    /// What the store works on; all of it outlives the store.
    struct Parts {
        mdb::Database& database;
        mdb::ObjectStore& objects;
        mdb::IndexTable& indexes;
        const SchemaTable& schemas;
        const platform::Clock& clock;
        /// Gives a block back to the store of time series, which no object needs any more. An
        /// error::Exception is logged, and the block stays there. Without it nothing is done.
        std::function<void(uint32_t block)> drop_backend_block = {};
        /// Has the store of time series make one and gives its number. Without it no series is
        /// made, and objects go without one until their first data.
        std::function<uint32_t(const tsdb::time_series_layout_t& layout)> create_backend_block = {};
    };

    /// New objects get ids with `id_first_word`, counting down from `id_second_word`, a random
    /// number. The indexes must be open. Installs the change hook and the abort hook.
    Store(const Parts& parts, uint32_t id_first_word, uint32_t id_second_word);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    [[nodiscard]] mdb::Database& database() noexcept { return parts_.database; }
    [[nodiscard]] mdb::Journal& journal() noexcept;
    [[nodiscard]] mdb::ObjectStore& objects() noexcept { return parts_.objects; }
    [[nodiscard]] mdb::IndexTable& indexes() noexcept { return parts_.indexes; }
    [[nodiscard]] const SchemaTable& schemas() const noexcept { return parts_.schemas; }
    [[nodiscard]] const platform::Clock& clock() const noexcept { return parts_.clock; }
    [[nodiscard]] ObjectCache& cache() noexcept { return cache_; }
    [[nodiscard]] SiblingIndex& sibling_index() noexcept { return sibling_index_; }
    [[nodiscard]] SiblingKeyIndex& sibling_keys() noexcept { return sibling_keys_; }
    [[nodiscard]] DbcacheIdResolver& resolver() noexcept { return *resolver_; }

    /// Handlers of stored objects that somebody holds a reference to. After each event there must
    /// be none.
    [[nodiscard]] uint32_t referenced_handlers() const noexcept { return referenced_; }
    /// Handlers of stored objects in memory.
    [[nodiscard]] uint32_t live_handlers() const noexcept { return live_; }

    /// Opens the object at `handle` as the open transaction sees it, by ObjectRecord::assign().
    /// Throws mdb::error_generic.
    void read_record(mdb::block_handle_t handle, ObjectRecord& out, hold_t hold = {},
                     uint32_t* ascending = nullptr);

    /// Frees the large objects of the object stored at `handle`. To be called by whoever deletes
    /// the object or makes a tombstone of it, before that, in the same transaction; nothing to do
    /// for a tombstone. Throws mdb::error_generic.
    void free_large_objects(mdb::block_handle_t handle);

    /// The same for the blocks of its time series, which are dropped when the outermost transaction
    /// has committed, and stay when this one is aborted.
    void drop_backend_blocks(mdb::block_handle_t handle);
    /// The same for one block, which an object gives up.
    void drop_backend_block(uint32_t block);
    /// Makes a time series for an object that is written in the open transaction; none when nobody
    /// is there who could. If this transaction or one around it is aborted, the series is dropped
    /// when the outermost one has ended. A process that is killed in between leaves the series
    /// behind. Throws what Parts::create_backend_block throws.
    [[nodiscard]] std::optional<uint32_t> create_backend_block(
        const tsdb::time_series_layout_t& layout);

    /// Deletes the stored object at `handle` without a trace, out of the cache too, in a
    /// transaction of its own. For leftovers that stand in no tree. Throws mdb::error_generic.
    void discard_stored(mdb::block_handle_t handle);

    /// Nodes that were moved and whose states have to be told again from their new place. Who tells
    /// them empties the set.
    [[nodiscard]] std::set<NodeId>& moved_nodes() noexcept { return moved_nodes_; }

    /// Grows with each change of an object's place and each that may cut objects off from the root:
    /// what hangs on the way to the root holds for one epoch.
    [[nodiscard]] uint64_t tree_epoch() const noexcept { return tree_epoch_; }
    void advance_tree_epoch() noexcept { ++tree_epoch_; }

  private:
    friend class DbcacheIdResolver;
    friend class HandlerRollback;
    friend class ObjectHandler;
    friend class StoreTransaction;

    /// Notes in the open transaction that `handler` was changed, or made, and keeps it in memory
    /// until the outermost one has ended: an abort has to bring it back to what is stored then.
    void touch(ObjectHandler& handler);
    void touch_created(ObjectHandler& handler);
    void release_touched() noexcept;
    void reload_touched(const std::set<NodeId>& ids);
    void reload(ObjectHandler& handler);
    /// Whether `id` was created in the innermost open transaction.
    [[nodiscard]] bool created_in_innermost(const NodeId& id) const noexcept;
    /// What becomes of a time series when the open transaction ends.
    struct BlockNote {
        enum class fate_t : uint8_t {
            unneeded,  ///< dropped after a commit
            made,      ///< orphaned by an abort
            orphaned   ///< dropped in any case
        };
        uint32_t block;
        fate_t fate;
    };
    void abort_block_notes(size_t first) noexcept;
    void drop_noted_blocks() noexcept;

    Parts parts_;
    SiblingIndex sibling_index_;
    SiblingKeyIndex sibling_keys_;
    uint32_t referenced_ = 0;
    uint32_t live_ = 0;
    uint64_t tree_epoch_ = 1;
    ObjectCache cache_;
    std::unique_ptr<DbcacheIdResolver> resolver_;
    std::map<NodeId, ObjectHandlerRef> touched_;
    /// Objects created in the open transactions, those of an outer one first.
    std::vector<NodeId> created_;
    StoreTransaction* innermost_ = nullptr;
    /// Those of an outer transaction first.
    std::vector<BlockNote> block_notes_;
    std::set<NodeId> moved_nodes_;
};

/// A transaction of the object layer for the length of a scope; aborted unless committed. Nested in
/// another one it ends asynchronously whatever was asked for: only the outermost end is
/// synchronous.
///
/// An abort brings everything in memory back to what is stored: handlers of changed and deleted
/// objects are loaded again, those of objects created in the transaction leave the cache and the
/// index of siblings, and whoever still holds one finds it deleted.
class StoreTransaction {
  public:
    explicit StoreTransaction(Store& store);
    ~StoreTransaction();
    StoreTransaction(const StoreTransaction&) = delete;
    StoreTransaction& operator=(const StoreTransaction&) = delete;

    [[nodiscard]] bool nested() const noexcept { return nested_; }
    /// Throws what the journal throws; there is nothing left to abort then.
    void commit(bool asynchronous = false);

  private:
    friend class Store;

    Store& store_;
    const bool nested_;
    std::unique_ptr<mdb::Transaction> transaction_;
    StoreTransaction* const outer_;
    /// Where its own part of the store's list of created objects begins.
    const size_t first_created_;
    /// The same for the notes on time series.
    const size_t first_note_;
    /// The journal may hold the transaction though commit() threw.
    bool commit_begun_ = false;
};

}  // namespace dbcache
