#include "dbcache/store.h"

#include <algorithm>
#include <vector>

#include "dbcache/detail/large_objects.h"
#include "dbcache/detail/metrics.h"
#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/resolver.h"
#include "dbcache/schema_table.h"
#include "dbcache/special_kinds.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/object_slots.h"
#include "mdb/object_store.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

}  // namespace

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

void Store::read_record(mdb::block_handle_t handle, ObjectRecord& out, hold_t hold,
                        uint32_t* ascending) {
    // A view of the cache shows what is committed; inside a transaction its own changes count too.
    const bool inside = journal().transaction_active();
    (inside ? detail::metrics::load_inside_tx : detail::metrics::load_outside_tx).increment();
    out.assign(inside ? objects().load_object(handle) : objects().fetch_object(handle), hold,
               ascending);
}

void Store::free_large_objects(mdb::block_handle_t handle) {
    const InheritanceChain chain(*this, {}, handle);
    PropertyNodeType type(prop::nodeType);
    if (chain.read(0, type) != found_t::value) return;
    if (const NodetypeSchema* schema = schemas().find(static_cast<uint32_t>(type.value)))
        detail::free_large_objects(database(), *schema, chain);
}

void Store::drop_backend_blocks(mdb::block_handle_t handle) {
    const InheritanceChain chain(*this, {}, handle);
    PropertyNodeType type(prop::nodeType);
    if (chain.read(0, type) != found_t::value) return;
    const NodetypeSchema* schema = schemas().find(static_cast<uint32_t>(type.value));
    if (schema == nullptr) return;
    uint32_t last_read = 0;
    for (const NodetypeSchema::Entry& entry : schema->properties()) {
        // One property may have an entry for each subtype.
        if (!entry.schema->has_backend() || entry.property == last_read) continue;
        last_read = entry.property;
        mdb::PropertySeries series(entry.property);
        if (chain.read(0, series) == found_t::value &&
            series.value != PropertyTSDBBlockSchema::kNoSeries)
            drop_backend_block(series.value);
    }
}

void Store::drop_backend_block(uint32_t block) {
    block_notes_.push_back({block, BlockNote::fate_t::unneeded});
    if (innermost_ == nullptr) drop_noted_blocks();
}

std::optional<uint32_t> Store::create_backend_block(const tsdb::time_series_layout_t& layout) {
    if (!parts_.create_backend_block) return std::nullopt;
    // The room for the note first: a series that can't be noted would be lost.
    if (block_notes_.size() == block_notes_.capacity())
        block_notes_.reserve(2 * block_notes_.size() + 4);
    const uint32_t block = parts_.create_backend_block(layout);
    if (innermost_ != nullptr) block_notes_.push_back({block, BlockNote::fate_t::made});
    return block;
}

void Store::discard_stored(mdb::block_handle_t handle) {
    const ObjectHandlerRef handler(
        static_cast<ObjectHandler*>(cache_.cache_find_by_handle(handle)));
    StoreTransaction transaction(*this);
    free_large_objects(handle);
    drop_backend_blocks(handle);
    if (handler) {
        touch(*handler);
        handler->move_to({});
    }
    objects().delete_object(handle, true);
    transaction.commit(true);
    if (!handler) return;
    handler->leave_sibling_index();
    handler->deleted_ = true;
}

void Store::abort_block_notes(size_t first) noexcept {
    const auto begin = block_notes_.begin() + static_cast<std::ptrdiff_t>(first);
    block_notes_.erase(std::remove_if(begin, block_notes_.end(),
                                      [](const BlockNote& note) {
                                          return note.fate == BlockNote::fate_t::unneeded;
                                      }),
                       block_notes_.end());
    for (size_t i = first; i < block_notes_.size(); ++i)
        block_notes_[i].fate = BlockNote::fate_t::orphaned;
}

/// The transaction has ended, whatever becomes of the blocks.
void Store::drop_noted_blocks() noexcept {
    const std::vector<BlockNote> notes = std::move(block_notes_);
    block_notes_.clear();
    if (!parts_.drop_backend_block) return;
    for (const BlockNote& note : notes) {
        if (note.fate == BlockNote::fate_t::made) continue;
        try {
            parts_.drop_backend_block(note.block);
        } catch (const std::exception& failure) {
            logger.error("Time series {}, which no object needs, stays behind: {}", note.block,
                         failure.what());
        }
    }
}

void Store::touch(ObjectHandler& handler) {
    if (!journal().transaction_active()) return;
    touched_.try_emplace(handler.node_id(), ObjectHandlerRef(&handler));
    journal().transaction_touch(handler.node_id());
}

void Store::touch_created(ObjectHandler& handler) {
    if (innermost_ != nullptr) created_.push_back(handler.node_id());
    touch(handler);
}

bool Store::created_in_innermost(const NodeId& id) const noexcept {
    if (innermost_ == nullptr) return false;
    const auto first = created_.begin() + static_cast<std::ptrdiff_t>(innermost_->first_created_);
    return std::find(first, created_.end(), id) != created_.end();
}

void Store::release_touched() noexcept {
    // Moved out first: a handler that goes with its last reference may come back here.
    const auto released = std::move(touched_);
    touched_.clear();
    created_.clear();
}

/// Brings the handlers of the aborted transaction's objects back to what is stored; that of an
/// object which the transaction had made goes. All leave the cache before the first one returns to
/// it, since one may lie where another has been.
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
    if (!location) touched_.erase(handler.node_id());
    if (handler.in_write_) {
        // Something nested was aborted, or the write itself: then its fields are taken back by it.
        handler.move_to(location.value_or(mdb::block_handle_t{}));
        return;
    }
    if (!location) {
        error::check(created_in_innermost(handler.node_id()),
                     "Object {} no longer exists after transaction abort", handler.node_id());
        handler.deleted_ = true;
        return;
    }
    handler.deleted_ = false;
    const NodeId parent = handler.parent_id();
    handler.load(*location);
    if (handler.parent_id() != parent) advance_tree_epoch();
    handler.move_to(*location);
}

// ---- StoreTransaction --------------------------------------------------------------------------

StoreTransaction::StoreTransaction(Store& store)
    : store_(store),
      nested_(store.journal().transaction_active()),
      transaction_(std::make_unique<mdb::Transaction>(store.journal())),
      outer_(store.innermost_),
      first_created_(store.created_.size()),
      first_note_(store.block_notes_.size()) {
    store_.innermost_ = this;
}

StoreTransaction::~StoreTransaction() {
    if (store_.innermost_ == this) {
        transaction_.reset();
        store_.created_.resize(first_created_);
        // After a commit that failed nobody knows whether the objects are stored: rather a series
        // too many than an object whose series is gone.
        if (commit_begun_)
            store_.block_notes_.resize(first_note_);
        else
            store_.abort_block_notes(first_note_);
        store_.innermost_ = outer_;
        if (!nested_) store_.drop_noted_blocks();
    }
    if (!nested_) store_.release_touched();
}

void StoreTransaction::commit(bool asynchronous) {
    commit_begun_ = true;
    transaction_->commit(nested_ || asynchronous);
    store_.innermost_ = outer_;
    if (nested_) return;
    store_.release_touched();
    store_.drop_noted_blocks();
}

}  // namespace dbcache
