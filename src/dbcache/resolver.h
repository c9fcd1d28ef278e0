// DbcacheIdResolver: finds the stored objects for the query engine, by id and by index, and gives
// ids to new objects.
//
// A delete turns an object into a tombstone and leaves its children where they are, to be removed
// in the background. Until they are, they are detached: the climb from such a child to the root
// meets no object where its parent was. Detached objects are not found by id or index, and no walk
// from the root reaches them. The climb is remembered per handler until the next delete, so a look-
// up costs one comparison more in the usual case, and nothing while no tombstone waits.
#pragma once

#include <cstdint>

#include "dbcache/store.h"
#include "tqlengine/id_resolver.h"

namespace dbcache {

class DbcacheIdResolver final : public tqlengine::TqlIdResolver {
  public:
    /// `first_word` is that of all new ids, `second_word` the start of their second word. Looks
    /// whether tombstones of an earlier run wait.
    DbcacheIdResolver(Store& store, uint32_t first_word, uint32_t second_word);

    // ---- for the query engine -------------------------------------------------------------------
    // A damaged index is errors::tql with code 14 here: the request fails, not the server.

    tqlengine::HandlerRef find(const tql::id_t& id) override;
    bool obviousMatches(tqlengine::HandlerList& out, const tql::id_t& origin,
                        const tql::pattern_t& pattern) override;
    /// A handler that isn't an ObjectHandler is a fatal assertion. The objects below stay stored
    /// and detached.
    void erase(tqlengine::HandlerRef handler) override;
    /// Does nothing for an id under which something is stored, a tombstone for instance: the
    /// objects that name it as their parent wait for the background delete.
    void discardOrphans(const tql::id_t& id) override;

    // ---- for the object layer -------------------------------------------------------------------

    /// The live object `id`, or empty: nothing, a tombstone, a detached object, or one that can't
    /// be loaded, which is logged. One hash probe for a cached object.
    ObjectHandlerRef find_object(const NodeId& id);
    /// The same without looking whether it is detached; for climbs and for listing children.
    ObjectHandlerRef find_stored(const NodeId& id);
    /// The object whose record lies at `handle`, an entry of an index; detached ones too.
    ObjectHandlerRef find_at(mdb::block_handle_t handle);

    /// True when the way from `handler` to the root is broken.
    [[nodiscard]] bool is_detached(ObjectHandler& handler);

    /// A delete has left a tombstone: what stood below it is detached from now on.
    void note_tombstone() noexcept;

    /// An id that no stored object has. Ids of one run descend from a random start.
    [[nodiscard]] NodeId new_node_id();

  private:
    ObjectHandlerRef load(const NodeId& id, mdb::block_handle_t handle);
    void push_found(tqlengine::HandlerList& out, const tql::id_t& id);
    void push_indexed(tqlengine::HandlerList& out, uint32_t index, const tql::id_t& key);

    Store& store_;
    uint32_t first_word_;
    uint32_t second_word_;
    /// Tombstones wait for the objects below them to go.
    bool deletes_pending_ = false;
};

}  // namespace dbcache
