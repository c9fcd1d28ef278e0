// The background delete: what hangs below the tombstones that wait, and they themselves, one object
// for each step.
//
// A step's transaction is not waited for: what a power cut takes away is done again by the next
// walk. A time series may be dropped twice then, but never one that has got a new owner: the
// journal keeps its order, so with the new owner the removal of the old one is there too.
#include <fmt/format.h>

#include "dbcache/fixed_ids.h"
#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/resolver.h"
#include "dbcache/schema_table.h"
#include "log/log.h"
#include "mdb/errors.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

void read_required(const ObjectRecord& record, mdb::Property& property) {
    if (record.read(property) != found_t::value)
        throw mdb::error_implicit_nullprop(fmt::format("no {}", tql::property_name(property.id)),
                                           property.id);
}

}  // namespace

void DbcacheIdResolver::resume() {
    keep_tombstones_ = false;
    if (!stack_.empty() || !store_.indexes()
                                .non_unique_search(mdb::parent_id_index, kFreshTombstones)
                                .at_searched_key())
        return;
    logger.debug("Incomplete cascading delete, resuming");
    start_walk();
}

void DbcacheIdResolver::pause() {
    if (stack_.empty()) return;
    logger.debug("Incomplete cascading delete, pausing");
    stack_.clear();
    on_stack_.clear();
}

void DbcacheIdResolver::push(const Place& place) {
    stack_.push_back(place);
    on_stack_.insert(place.id);
}

void DbcacheIdResolver::pop() {
    on_stack_.erase(stack_.back().id);
    stack_.pop_back();
}

void DbcacheIdResolver::start_walk() {
    given_up_.clear();
    push({kFreshTombstones, {}});
}

void DbcacheIdResolver::doWork() {
    error::check(!stack_.empty(), "doWork() met empty stack");
    const Place top = stack_.back();
    logger.debug("DbcacheIdResolver::doWork() [{}] top: {}", stack_.size(), top.id);
    try {
        const below_t below = go_down(top.id);
        if (below == below_t::some) return;
        if (top.id == kFreshTombstones) return end_walk();
        // Without its parent nobody would come to what was given up any more.
        if (below == below_t::only_given_up)
            given_up_.insert(top.entry);
        else
            remove_top();
    } catch (const mdb::error_io&) {
        throw;
    } catch (const mdb::error_internal&) {
        throw;
    } catch (const mdb::error_generic& fault) {
        give_up(top.entry, fmt::format("Object {}: {}", top.id, fault.text()));
    }
    pop();
}

DbcacheIdResolver::below_t DbcacheIdResolver::go_down(const NodeId& parent) {
    mdb::IndexTable& indexes = store_.indexes();
    auto it = indexes.non_unique_search(mdb::parent_id_index, parent);
    if (!it.at_searched_key()) return below_t::nothing;
    while (given_up_.contains(indexes.iterator_value(it))) {
        indexes.iterator_next(it);
        if (!it.at_searched_key()) return below_t::only_given_up;
    }
    const mdb::block_handle_t entry = indexes.iterator_value(it);
    mdb::PropertyNodeId id(prop::id);
    try {
        id.read(store_.objects().fetch_object(entry));
    } catch (const mdb::error_io&) {
        throw;
    } catch (const mdb::error_internal&) {
        throw;
    } catch (const mdb::error_generic& fault) {
        give_up(entry, fault.text());
        return below_t::some;
    }
    if (on_stack_.contains(id.value)) {
        give_up(entry, fmt::format("Object {} stands below itself", id.value));
        return below_t::some;
    }
    logger.debug("Pushing child {}", id.value);
    push({id.value, entry});
    return below_t::some;
}

void DbcacheIdResolver::end_walk() {
    logger.debug("Background cascading delete done");
    pop();
    deletes_pending_ = !given_up_.empty();
}

void DbcacheIdResolver::remove_top() {
    const Place top = stack_.back();
    if (const auto place = store_.indexes().unique_find(mdb::node_id_index, top.id))
        return remove_stored(top.id, *place);
    logger.error("Object {} not found during background cascading delete", top.id);
    given_up_.insert(top.entry);
}

void DbcacheIdResolver::remove_stored(const NodeId& id, mdb::block_handle_t place) {
    ObjectRecord record;
    store_.read_record(place, record);
    logger.debug("Deleting object {}", id);
    mdb::PropertyNodeId parent(prop::parentId);
    read_required(record, parent);
    // A wrong entry of the index must not cost an object that stands elsewhere.
    const NodeId& above = stack_[stack_.size() - 2].id;
    if (parent.value != above)
        throw mdb::error_need_repair(fmt::format("its parent is {}, not {}", parent.value, above));
    PropertyNodeType type(prop::nodeType);
    read_required(record, type);
    const auto nodetype = static_cast<uint32_t>(type.value);
    if (store_.schemas().find(nodetype) == nullptr)
        logger.debug("Background cascadingDelete on type {}", nodetype);
    store_.cache().cache_remove(place, true);
    store_.sibling_keys().forget(id);
    mdb::PropertyNodeId mount_point(prop::mountPoint);
    const bool keep = parent.value == kFreshTombstones &&
                      (keep_tombstones_ || record.read(mount_point) == found_t::value);
    StoreTransaction transaction(store_);
    store_.free_large_objects(place);
    store_.drop_backend_blocks(place);
    if (keep)
        keep_tombstone(place);
    else
        store_.objects().delete_object(place, true);
    transaction.commit(true);
}

/// The subtree is gone; the tombstone stays for those who copy from this server.
void DbcacheIdResolver::keep_tombstone(mdb::block_handle_t place) {
    mdb::dobj image = store_.objects().begin_object_update(place);
    store_.objects().update_property(
        image, mdb::PropertyNodeId(prop::parentId, kFinishedTombstones), false, false);
    static_cast<void>(store_.objects().commit_object_update(image));
}

/// From now on this walk passes `entry` over.
void DbcacheIdResolver::give_up(mdb::block_handle_t entry, std::string_view reason) {
    logger.error("Background cascading delete leaves what lies at {}:{}: {}", entry.block,
                 entry.offset, reason);
    given_up_.insert(entry);
}

}  // namespace dbcache
