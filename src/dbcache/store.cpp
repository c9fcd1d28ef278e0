#include "dbcache/store.h"

#include <vector>

#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/resolver.h"
#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/object_slots.h"
#include "mdb/object_store.h"

namespace dbcache {

Store::Store(const Parts& parts, uint32_t id_first_word, uint32_t id_second_word)
    : parts_(parts), cache_(parts.clock) {
    resolver_ = std::make_unique<DbcacheIdResolver>(*this, id_first_word, id_second_word);
    objects().set_object_change_hook([this](mdb::block_handle_t handle) {
        error::check(!cache_.contains(handle), "Object at {}:{} in cache before destroy_object",
                     handle.block, handle.offset);
    });
    journal().set_abort_hook([this](const std::set<NodeId>& ids) { reload_touched(ids); });
}

Store::~Store() {
    objects().set_object_change_hook({});
    journal().set_abort_hook({});
}

mdb::Journal& Store::journal() noexcept {
    return parts_.database.journal();
}

void Store::read_record(mdb::block_handle_t handle, ObjectRecord& out) {
    // A view of the cache shows what is committed; inside a transaction its own changes count too.
    const mdb::dobj object = journal().transaction_active() ? objects().load_object(handle)
                                                            : objects().fetch_object(handle);
    out.assign(mdb::object_slot(object), handle);
}

void Store::discard_stored(mdb::block_handle_t handle) {
    const ObjectHandlerRef handler(
        static_cast<ObjectHandler*>(cache_.cache_find_by_handle(handle)));
    if (handler) handler->move_to({});
    StoreTransaction transaction(*this);
    objects().delete_object(handle, true);
    transaction.commit(true);
    if (handler) handler->deleted_ = true;
}

void Store::touch(ObjectHandler& handler) {
    if (!journal().transaction_active()) return;
    journal().transaction_touch(handler.node_id());
    touched_.try_emplace(handler.node_id(), ObjectHandlerRef(&handler));
}

void Store::release_touched() noexcept {
    // Moved out first: a handler that goes with its last reference may come back here.
    const auto released = std::move(touched_);
    touched_.clear();
}

/// Brings the handlers of the aborted transaction's objects back to what is stored. All leave the
/// cache before the first one returns to it, since one may lie where another has been.
void Store::reload_touched(const std::set<NodeId>& ids) {
    std::vector<ObjectHandlerRef> handlers;
    for (const NodeId& id : ids) {
        ObjectHandlerRef handler(static_cast<ObjectHandler*>(cache_.cache_find_by_id(id)));
        if (!handler)
            if (const auto kept = touched_.find(id); kept != touched_.end()) handler = kept->second;
        error::check(static_cast<bool>(handler), "Should abort {}, but not found", id);
        if (!handler->in_write_) handler->leave_sibling_index();
        handler->move_to({});
        handlers.push_back(std::move(handler));
    }
    for (const ObjectHandlerRef& handler : handlers) reload(*handler);
}

void Store::reload(ObjectHandler& handler) {
    const auto location = indexes().unique_find(mdb::node_id_index, handler.node_id());
    if (handler.in_write_) {
        // Something nested was aborted, or the write itself: then its fields are taken back by it.
        handler.move_to(location.value_or(mdb::block_handle_t{}));
        return;
    }
    error::check(location.has_value(), "Object {} no longer exists after transaction abort",
                 handler.node_id());
    handler.deleted_ = false;
    handler.load(*location);
    handler.move_to(*location);
}

// ---- StoreTransaction --------------------------------------------------------------------------

StoreTransaction::StoreTransaction(Store& store)
    : store_(store),
      nested_(store.journal().transaction_active()),
      transaction_(std::make_unique<mdb::Transaction>(store.journal())) {}

StoreTransaction::~StoreTransaction() {
    transaction_.reset();
    if (!nested_) store_.release_touched();
}

void StoreTransaction::commit(bool asynchronous) {
    transaction_->commit(nested_ || asynchronous);
    if (!nested_) store_.release_touched();
}

}  // namespace dbcache
