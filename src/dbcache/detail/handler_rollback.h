// HandlerRollback: keeps what a handler is while a write to its object runs, with the transaction
// of the write. Unless the write commits, all of it is undone: the transaction, and then fields,
// place in the cache and location of the handler.
#pragma once

#include <memory>
#include <utility>

#include "dbcache/object_handler.h"

namespace dbcache {

class HandlerRollback {
  public:
    explicit HandlerRollback(ObjectHandler& handler)
        : handler_(handler),
          location_(handler.location_),
          parent_(handler.parent_.value),
          version_(handler.version_),
          copy_version_(handler.copy_version_),
          subtype_(handler.subtype_) {}
    ~HandlerRollback() {
        if (!done_) undo();
    }
    HandlerRollback(const HandlerRollback&) = delete;
    HandlerRollback& operator=(const HandlerRollback&) = delete;

    /// Takes the transaction of the write, which has changed nothing of the object yet.
    void begin(std::unique_ptr<StoreTransaction> transaction) {
        // A hook may have made the object move since.
        location_ = handler_.location_;
        transaction_ = std::move(transaction);
        handler_.in_write_ = true;
    }
    /// Commits, synchronously if this is the outermost transaction. Nothing is undone any more,
    /// unless an outer transaction is aborted, which the store sees to.
    void commit() {
        if (transaction_->nested()) note_in_store();
        // A commit that fails leaves nothing to go on with: only the journal knows what is stored.
        done_ = true;
        handler_.in_write_ = false;
        transaction_->commit();
        transaction_.reset();
    }

  private:
    void note_in_store() {
        if (location_.is_null())
            handler_.store_.touch_created(handler_);
        else
            handler_.store_.touch(handler_);
    }
    void undo() noexcept {
        // Out of the cache first: the abort brings back other handlers, one of which may lie where
        // this one has been put.
        const bool moved = transaction_ != nullptr;
        if (moved) handler_.move_to({});
        transaction_.reset();
        handler_.in_write_ = false;
        if (handler_.parent_.value != parent_) handler_.store_.advance_tree_epoch();
        handler_.parent_.value = parent_;
        handler_.version_ = version_;
        handler_.copy_version_ = copy_version_;
        handler_.subtype_ = subtype_;
        if (moved) handler_.move_to(location_);
    }

    ObjectHandler& handler_;
    mdb::block_handle_t location_;
    NodeId parent_;
    tql::version_t version_;
    tql::version_t copy_version_;
    uint32_t subtype_;
    std::unique_ptr<StoreTransaction> transaction_;
    bool done_ = false;
};

}  // namespace dbcache
