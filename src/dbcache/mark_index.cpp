#include "dbcache/mark_index.h"

#include <fmt/format.h>

#include "dbcache/resolver.h"
#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "util/cycle_check.h"

namespace dbcache {

namespace {

template <class Visit>
void visit_records(Store& store, mdb::block_handle_t handle, Visit&& visit) {
    // A view of the cache shows what is committed; inside a transaction its own changes count too.
    const mdb::dobj object = store.journal().transaction_active()
                                 ? store.objects().load_object(handle)
                                 : store.objects().fetch_object(handle);
    for (const mdb::RecordView record : mdb::ObjectRecords(object)) visit(record);
}

MarkRecord load_mark(const mdb::RecordView& record, mdb::block_handle_t handle) {
    if (record.is_null()) return {};
    mdb::PropertyMarkIndex mark(record.id());
    mark.read_record(record, handle);
    return mark.value;
}

}  // namespace

MarkRecord read_mark(Store& store, mdb::block_handle_t handle, uint32_t mark) {
    MarkRecord found;
    visit_records(store, handle, [&](const mdb::RecordView& record) {
        if (record.id() == mark) found = load_mark(record, handle);
    });
    return found;
}

MarkRecords read_marks(Store& store, mdb::block_handle_t handle) {
    MarkRecords found;
    visit_records(store, handle, [&](const mdb::RecordView& record) {
        for (size_t i = 0; i < kMarks.size(); ++i)
            if (record.id() == kMarks[i]) found[i] = load_mark(record, handle);
    });
    return found;
}

MarkRecords read_marks(const PropertyChain& object) {
    MarkRecords found;
    for (size_t i = 0; i < kMarks.size(); ++i)
        if (mdb::PropertyMarkIndex mark(kMarks[i]); object.read(0, mark) == found_t::value)
            found[i] = mark.value;
    return found;
}

// ---- PropUpdate --------------------------------------------------------------------------------

PropUpdate::PropUpdate(ObjectHandlerRef handler, uint32_t mark)
    : handler_(std::move(handler)),
      mark_(mark),
      stored_(read_mark(handler_->store(), handler_->location(), mark)),
      record_(stored_) {}

mdb::MarkLinks& PropUpdate::operator*() {
    error::check(record_.has_value(), "dereferencing empty PropUpdate");
    return *record_;
}

void PropUpdate::close() {
    if (record_ == stored_) return;
    handler_->rewrite_records([this](mdb::ObjectStore& objects, mdb::dobj& image) {
        if (record_)
            objects.update_property(image, mdb::PropertyMarkIndex(mark_, *record_), true, false);
        else
            objects.remove_property(image, mark_, true);
    });
    stored_ = record_;
}

// ---- changing a list ---------------------------------------------------------------------------

MarkIndex::MarkIndex(Store& store, uint32_t mark) : store_(store), mark_(mark) {}

ObjectHandlerRef MarkIndex::find(const NodeId& id) const {
    return id.is_null() ? ObjectHandlerRef{} : store_.resolver().find_stored(id);
}

bool MarkIndex::update(bool should, const NodeId& new_parent, const NodeId& old_parent,
                       MarkRecord& record, const NodeId& own) {
    const MarkRecord before = record;
    const bool was = record && record->marked;
    const bool moved = new_parent != old_parent;
    if (!moved && was == should) return false;
    const bool ends_itself = !record || record->last == own;
    // Where nothing else changes, an object with a stretch keeps its place.
    if (!moved && record && (should || !ends_itself)) {
        record->marked = should;
        return true;
    }
    if (record) unlink(old_parent, record->prev, record->last);
    if (ends_itself && !should) {
        record.reset();
        return before.has_value();
    }
    if (!record) record = mdb::MarkLinks{.prev = {}, .next = {}, .last = own, .marked = true};
    record->marked = should;
    const NodeId old_next = link(new_parent, own, record->last);
    record->prev = new_parent;
    if (ends_itself) record->next = old_next;
    return record != before;
}

NodeId MarkIndex::link(const NodeId& parent, const NodeId& first, const NodeId& last) {
    NodeId old_next;
    NodeId head = first;
    for (tqlengine::WayUp at(find(parent)); at; at.up()) {
        PropUpdate record(at.ref(), mark_);
        if (!record.holds()) {
            record.set({.prev = at->parent_id(), .next = head, .last = last, .marked = false});
            record.close();
            head = at->node_id();
            continue;
        }
        old_next = record->next;
        record->next = head;
        const NodeId id = at->node_id();
        const bool ended_here = record->last == id;
        if (ended_here) record->last = last;
        record.close();
        if (ended_here) replace_last(at->parent_object(), id, last);
        break;
    }
    if (const ObjectHandlerRef follower = find(old_next)) {
        PropUpdate record(follower, mark_);
        error::check(record.holds(), "Next points to white object in link");
        record->prev = last;
        record.close();
    }
    if (first != last) {
        const ObjectHandlerRef end = find(last);
        error::check(static_cast<bool>(end), "Could not locate last_id: {}", last);
        PropUpdate record(end, mark_);
        error::check(record.holds(), "Last points to white object");
        record->next = old_next;
        record.close();
    }
    return old_next;
}

void MarkIndex::unlink(NodeId parent, NodeId prev, const NodeId& last) {
    if (!drop_lone_links(parent, prev, last)) return;
    const NodeId next = index_next(last);
    {
        const ObjectHandlerRef before = find(prev);
        error::check(static_cast<bool>(before), "Could not fetch prev: {}", prev);
        PropUpdate record(before, mark_);
        error::check(record.holds(), "Prev points to white object");
        record->next = next;
        record.close();
    }
    if (const ObjectHandlerRef after = find(next)) {
        PropUpdate record(after, mark_);
        error::check(record.holds(), "Next points to white object in unlink");
        record->prev = prev;
        record.close();
    }
    replace_last(find(parent), last, prev);
}

/// Climbs past the links that live only for the stretch, which leave with it; `parent` and `prev`
/// then are where the list goes on. False when the list is empty now.
bool MarkIndex::drop_lone_links(NodeId& parent, NodeId& prev, const NodeId& last) {
    while (const ObjectHandlerRef at = find(parent)) {
        PropUpdate record(at, mark_);
        error::check(record.holds(), "Unlink invoked with white object");
        if (parent != prev || record->last != last || record->marked) return true;
        prev = record->prev;
        parent = at->parent_id();
        record.drop();
        record.close();
    }
    error::check(prev.is_null(), "prev is not nil on unlink");
    return false;
}

void MarkIndex::replace_last(ObjectHandlerRef lowest, const NodeId& from, const NodeId& to) {
    for (tqlengine::WayUp at(std::move(lowest)); at; at.up()) {
        PropUpdate record(at.ref(), mark_);
        error::check(record.holds(), "Ancestor is white object");
        if (record->last != from) return;
        record->last = to;
        record.close();
    }
}

// ---- reading a list ----------------------------------------------------------------------------

/// The handler in memory; empty when there is none.
ObjectHandlerRef MarkIndex::cached(const NodeId& id) const {
    return ObjectHandlerRef(static_cast<ObjectHandler*>(store_.cache().cache_find_by_id(id)));
}

/// Where the object lies; null when there is none.
mdb::block_handle_t MarkIndex::stored_place(const NodeId& id) const {
    return store_.indexes().unique_find(mdb::node_id_index, id).value_or(mdb::block_handle_t{});
}

NodeId MarkIndex::index_next(const NodeId& id) {
    const ObjectHandlerRef object = cached(id);
    const mdb::block_handle_t place = object ? object->location() : stored_place(id);
    error::check(!place.is_null(), "Did not find object {} in index_next", id);
    return next_of(id, read_mark(store_, place, mark_));
}

/// The record has been read already.
NodeId MarkIndex::next_of(const NodeId& id, const MarkRecord& record) {
    if (!record)
        throw error::EFatal(fmt::format("Attempt to fetch next-pointer of white object {}", id));
    return record->next;
}

void MarkIndex::traverse(tqlengine::HandlerList& list, const NodeId& origin) {
    const ObjectHandlerRef top = store_.resolver().find_object(origin);
    if (!top) return;
    MarkRecord record = read_mark(store_, top->location(), mark_);
    if (!record) return;
    if (record->marked) list.push_back(top);
    const NodeId end = record->last;
    NodeId at = origin;
    util::CycleCheck cycle(origin);
    while (at != end) {
        at = next_of(at, record);
        error::check(!cycle.closes_at(at), "Cycle detected in mark-index {} object {}",
                     tql::property_name(mark_), at);
        // A mere link needs no handler, so none is loaded for it.
        ObjectHandlerRef object = cached(at);
        const mdb::block_handle_t place = object ? object->location() : stored_place(at);
        error::check(!place.is_null(), "Did not find object {} during mark-index traversal", at);
        record = read_mark(store_, place, mark_);
        if (!record || !record->marked) continue;
        if (!object) object = find(at);
        error::check(static_cast<bool>(object),
                     "Did not find object {} during mark-index traversal", at);
        list.push_back(std::move(object));
    }
}

void leave_mark_lists(ObjectHandler& handler) {
    Store& store = handler.store();
    const MarkRecords records = read_marks(store, handler.location());
    for (size_t i = 0; i < kMarks.size(); ++i)
        if (records[i])
            MarkIndex(store, kMarks[i])
                .unlink(handler.parent_id(), records[i]->prev, records[i]->last);
}

}  // namespace dbcache
