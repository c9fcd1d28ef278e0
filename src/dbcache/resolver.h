// DbcacheIdResolver: finds the stored objects for the query engine, by id and by index, and gives
// ids to new objects.
//
// A delete turns an object into a tombstone and leaves its children where they are, to be removed
// in the background. Until they are, they are detached: the climb from such a child to the root
// meets no object where its parent was. Detached objects are not found by id or index, and no walk
// from the root reaches them. The climb is remembered per handler until the next delete, so a look-
// up costs one comparison more in the usual case, and nothing while no tombstone waits.
//
// The removal is an idle task of many small steps, a walk that takes the children of each object
// first. Its state is the tree itself: the stack below only spares a step the way down.
//
//   idle     --erase(), or resume() with tombstones waiting--> walking
//   walking  --no tombstone waits any more, or pause()-->      idle
#pragma once

#include <cstdint>
#include <set>
#include <string_view>
#include <vector>

#include "dbcache/store.h"
#include "tqlengine/id_resolver.h"
#include "util/idle_task.h"

namespace dbcache {

class DbcacheIdResolver final : public tqlengine::TqlIdResolver, public idle::IdleTask {
  public:
    /// A second one for the same store is a fatal assertion. `first_word` is that of all new ids,
    /// `second_word` the start of their second word. Looks whether tombstones of an earlier run
    /// wait.
    DbcacheIdResolver(Store& store, uint32_t first_word, uint32_t second_word);

    // ---- for the query engine -------------------------------------------------------------------
    // A damaged index is errors::tql with code 14 here: the request fails, not the server.

    /// Throws the same for an object in a ring of parents or below one, which no request can read
    /// or change: its subtree, its counters and its lists have no end.
    tqlengine::HandlerRef find(const tql::id_t& id) override;
    bool obviousMatches(tqlengine::HandlerList& out, const tql::id_t& origin,
                        const tql::pattern_t& pattern) override;
    /// A handler that isn't an ObjectHandler is a fatal assertion. The objects below are removed by
    /// the steps of the idle task.
    void erase(tqlengine::HandlerRef handler) override;
    /// Does nothing for an id under which something is stored, a tombstone for instance: the
    /// objects that name it as their parent wait for the background delete.
    void discardOrphans(const tql::id_t& id) override;

    // ---- the idle task --------------------------------------------------------------------------

    /// Whether tombstones wait for what stands below them to go.
    [[nodiscard]] bool has_work() const override { return !stack_.empty(); }
    /// One step of the walk: goes down to one child, or removes one object, in a transaction whose
    /// flush isn't waited for. An object that can't be removed is logged and stays, with all above
    /// it, until the next walk. Throws only what ends the process, mdb::error_io and
    /// mdb::error_internal. No transaction may be open and no handler referenced.
    void doWork() override;
    /// To be called once, at the end of the start: goes on with what an earlier run left, and from
    /// now on removes tombstones that nobody needs; before, all are kept.
    void resume();
    /// When the server stops: drops the work at hand. The next start finds it again.
    void pause();

    // ---- for the object layer -------------------------------------------------------------------

    /// The live object `id`, or empty: nothing, a tombstone, a detached object, or one that can't
    /// be loaded, which is logged. One hash probe for a cached object.
    ObjectHandlerRef find_object(const NodeId& id);
    /// The same without looking whether it is detached; for climbs and for listing children.
    ObjectHandlerRef find_stored(const NodeId& id);
    /// The object whose record lies at `handle`, an entry of an index; detached ones too.
    ObjectHandlerRef find_at(mdb::block_handle_t handle);

    /// True when the way from `handler` to the root is broken. Throws errors::tql with code 14 when
    /// it leads in a ring.
    [[nodiscard]] bool is_detached(ObjectHandler& handler);

    /// A delete has left a tombstone: what stood below it is detached from now on.
    void note_tombstone() noexcept;

    /// An id that no stored object has. Ids of one run descend from a random start.
    [[nodiscard]] NodeId new_node_id();

  private:
    /// An object on the way from the tombstones down, and the entry of the index of parents that
    /// led to it.
    struct Place {
        NodeId id;
        mdb::block_handle_t entry;
    };
    /// What a step finds below an object. Some: it went down to it, or gave it up.
    enum class below_t : uint8_t { nothing, some, only_given_up };

    enum class way_end_t : uint8_t { root, nowhere, ring };
    struct Way {
        way_end_t end = way_end_t::root;
        tql::id_t last;  ///< of a ring an object
    };

    [[nodiscard]] Way way_to_root(ObjectHandler& handler);
    void tell_of_ring(const tql::id_t& id);

    void push(const Place& place);
    void pop();
    void start_walk();
    void end_walk();
    [[nodiscard]] below_t go_down(const NodeId& parent);
    void remove_top();
    void remove_stored(const NodeId& id, mdb::block_handle_t place);
    void keep_tombstone(mdb::block_handle_t place);
    void give_up(mdb::block_handle_t entry, std::string_view reason);

    ObjectHandlerRef load(const NodeId& id, mdb::block_handle_t handle);
    void push_found(tqlengine::HandlerList& out, const tql::id_t& id);
    void push_indexed(tqlengine::HandlerList& out, uint32_t index, const tql::id_t& key);

    Store& store_;
    uint32_t first_word_;
    uint32_t second_word_;
    /// Tombstones wait for the objects below them to go.
    bool deletes_pending_ = false;
    std::set<tql::id_t> told_rings_;
    /// Empty means no work; else the first is the parent of all tombstones that wait.
    std::vector<Place> stack_;
    std::set<NodeId> on_stack_;  ///< the ids of stack_
    /// Entries of the index of parents that this walk passes over, as what they lead to can't be
    /// removed.
    std::set<mdb::block_handle_t> given_up_;
    /// True until resume(): every tombstone stays then.
    bool keep_tombstones_ = true;
};

}  // namespace dbcache
