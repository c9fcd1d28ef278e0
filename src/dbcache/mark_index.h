// MarkIndex: a list of all objects with one mark, threaded through the objects themselves in depth-
// first order, so that the members in any subtree form one stretch of it. All marked objects under
// an object are then found by a walk from that object to the `last` of its record, however large
// the tree around it.
//
//      root -> a -> b -> c -> d        root.last = d
//                \_____/               a.last = c: the stretch of a's subtree is a, b, c
//
// An object stands in the list when it is marked itself, or as a mere link because it has listed
// objects below it. An object without a record is white. At all times:
//   M1 if an object has a record, so has its parent, up to the top of the tree
//   M2 an object comes before its listed children, each with its stretch
//   M3 `last` of an object is the last entry of its stretch; its own id when nothing below is
//   listed M4 `next` of A is B exactly if `prev` of B is A; the list begins and ends with the null
//   id M5 an object that isn't marked has a listed object below it
//
// The lists are stored data. They change only inside the transaction of the write that is the
// reason, neighbours and ancestors with it, and an abort takes all of it back. A broken list is not
// mended on the way: it is a fatal assertion.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "dbcache/object_handler.h"
#include "mdb/property_types.h"
#include "tql/names.h"
#include "tqlengine/object_handler.h"
#include "util/node_id.h"

namespace dbcache {

/// The marks that there are, each a property of its own.
inline constexpr std::array<uint32_t, 2> kMarks = {prop::activeMark, prop::inheritsMark};

/// What an object holds for one mark; none for a white object.
using MarkRecord = std::optional<mdb::MarkLinks>;
/// The same for all of kMarks, in their order.
using MarkRecords = std::array<MarkRecord, kMarks.size()>;

/// First words of ids that fit into a mark record; others can't stand in a list.
inline constexpr uint32_t kMaxMarkFirstWord = 255;

[[nodiscard]] constexpr bool is_mark(uint32_t property) noexcept {
    return property == prop::activeMark || property == prop::inheritsMark;
}

/// Reads the record of `mark` from the object at `handle`, as the open transaction sees it. Throws
/// mdb::error_generic.
[[nodiscard]] MarkRecord read_mark(Store& store, mdb::block_handle_t handle, uint32_t mark);
[[nodiscard]] MarkRecords read_marks(Store& store, mdb::block_handle_t handle);
[[nodiscard]] MarkRecords read_marks(const PropertyChain& object);

/// The record of one mark of one object, to be changed and written back in the open transaction.
/// Between construction and close() nobody else may change the object.
class PropUpdate {
  public:
    /// Throws mdb::error_generic.
    PropUpdate(ObjectHandlerRef handler, uint32_t mark);
    PropUpdate(const PropUpdate&) = delete;
    PropUpdate& operator=(const PropUpdate&) = delete;

    /// False for a white object.
    [[nodiscard]] bool holds() const noexcept { return record_.has_value(); }
    /// Holding nothing is a fatal assertion.
    [[nodiscard]] mdb::MarkLinks& operator*();
    [[nodiscard]] mdb::MarkLinks* operator->() { return &**this; }
    void set(const mdb::MarkLinks& links) { record_ = links; }
    /// The object turns white.
    void drop() { record_.reset(); }

    /// Writes a changed record: the object's handler goes along to the new place. Without it the
    /// object stays as it was. Throws mdb::error_generic.
    void close();

  private:
    ObjectHandlerRef handler_;
    uint32_t mark_;
    MarkRecord stored_;
    MarkRecord record_;
};

class MarkIndex {
  public:
    /// `mark` is one of kMarks. The store must outlive this.
    MarkIndex(Store& store, uint32_t mark);

    /// Brings the record of the object `own` up to date after a write. `should` tells whether it is
    /// to be a member; the parents differ when it has moved. `record` is its record, which the
    /// caller stores; its neighbours are written here. True when it has changed. Costs nothing
    /// unless the membership changes or the object has moved.
    bool update(bool should, const NodeId& new_parent, const NodeId& old_parent, MarkRecord& record,
                const NodeId& own);
    /// Inserts the stretch `first` to `last` as the first below `parent`, and makes links of white
    /// objects on the way up. Gives the object that now follows `last`, which `next` of `last` has
    /// to name: it is written here unless the stretch is a single object.
    [[nodiscard]] NodeId link(const NodeId& parent, const NodeId& first, const NodeId& last);
    /// Takes out the stretch below `parent` that follows `prev` and ends at `last`, with the links
    /// above it that have no other reason to be there.
    void unlink(NodeId parent, NodeId prev, const NodeId& last);
    /// The object after `id` in the list; null at its end. Throws error::EFatal for a white object.
    [[nodiscard]] NodeId index_next(const NodeId& id);
    /// Appends the marked objects of the stretch of `origin`, in the order of the list; none when
    /// `origin` is no object of the tree, or white. Costs the length of the stretch, links
    /// included.
    void traverse(tqlengine::HandlerList& list, const NodeId& origin);

  private:
    [[nodiscard]] ObjectHandlerRef find(const NodeId& id) const;
    [[nodiscard]] bool drop_lone_links(NodeId& parent, NodeId& prev, const NodeId& last);
    /// Sets `last` to `to` from `at` upward, as far as it is `from`.
    void replace_last(ObjectHandlerRef lowest, const NodeId& from, const NodeId& to);
    [[nodiscard]] static NodeId next_of(const NodeId& id, const MarkRecord& record);
    [[nodiscard]] ObjectHandlerRef cached(const NodeId& id) const;
    [[nodiscard]] mdb::block_handle_t stored_place(const NodeId& id) const;

    Store& store_;
    const uint32_t mark_;
};

/// Takes the whole stretch of a stored object, which is about to go with all below it, out of the
/// lists. The records of the stretch stay as they are.
void leave_mark_lists(ObjectHandler& handler);

}  // namespace dbcache
