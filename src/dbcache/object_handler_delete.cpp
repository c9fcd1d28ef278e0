// Deleting an object: it becomes a tombstone, and what stands below it stays for the background.
#include <fmt/format.h>
#include <optional>

#include "dbcache/accounting.h"
#include "dbcache/detail/handler_rollback.h"
#include "dbcache/detail/record_writer.h"
#include "dbcache/detail/write_faults.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/inheritance.h"
#include "dbcache/mark_index.h"
#include "dbcache/object_handler.h"
#include "dbcache/resolver.h"
#include "mdb/database.h"
#include "mdb/object_store.h"
#include "tql/errors.h"
#include "tql/names.h"

namespace dbcache {

namespace {

constexpr uint32_t kDeletedNodetype = 0;

}  // namespace

/// One delete of one object, step by step.
class DeleteOperation {
  public:
    DeleteOperation(ObjectHandler& handler, const tqlengine::DeleteArguments& arguments)
        : handler_(handler), arguments_(arguments), rollback_(handler) {}

    void run() {
        check_version();
        whole_.emplace(handler_.store());
        handler_.schema().beforeDelete(handler_);
        leave_counters();
        leave_mark_lists(handler_);
        handler_.store().cache().cache_remove(handler_.location(), false);
        handler_.store().free_large_objects(handler_.location());
        handler_.store().drop_backend_blocks(handler_.location());
        read_master();
        take_versions();
        serialise_tombstone();
        store_tombstone();
        rollback_.commit();
        whole_->commit();
        leave();
    }

  private:
    void check_version() const {
        if (arguments_.version != handler_.copy_version_)
            throw errors::tql(errors::ERR_VERSION, "Someone else has updated the object");
    }

    /// Takes what the object and all below it count for from its ancestors, in the write's
    /// transaction, which this opens.
    void leave_counters() {
        const UseMap use = get_use(handler_, handler_.load_values());
        rollback_.begin(accountParent(handler_, get_use_diff(use, {})));
    }

    /// Where the object stood at a master server, as far as that is known.
    void read_master() {
        if (arguments_.clear_master_id) return;
        const InheritanceChain chain(handler_.store(), handler_.node_id(), handler_.location());
        if (chain.read(0, master_id_) != found_t::value ||
            chain.read(0, master_version_) != found_t::value)
            return;
        tqlengine::WayUp at(handler_.parent_object());
        while (at && at->class_number() != cls::MountPoint) at.up();
        if (at) mount_point_ = at->node_id();
    }

    void take_versions() {
        handler_.version_ = arguments_.new_version;
        handler_.copy_version_ = arguments_.new_version;
    }

    void serialise_tombstone() {
        RecordWriter writer(handler_.store().database().serializer());
        writer.add_head(handler_.node_id(), kFreshTombstones, handler_.version(), kDeletedNodetype);
        if (mount_point_.is_null()) return;
        writer.add(mdb::PropertyNodeId(prop::mountPoint, mount_point_));
        writer.add(master_id_);
        writer.add(master_version_);
    }

    void store_tombstone() {
        static_cast<void>(handler_.store().objects().store_object(handler_.location()));
    }

    void leave() {
        handler_.leave_sibling_index();
        handler_.location_ = {};
        handler_.deleted_ = true;
        handler_.store().resolver().note_tombstone();
        handler_.store().sibling_keys().forget(handler_.node_id());
    }

    ObjectHandler& handler_;
    const tqlengine::DeleteArguments& arguments_;
    /// Around what the hook before the delete writes too; goes after the rollback.
    std::optional<StoreTransaction> whole_;
    HandlerRollback rollback_;
    mdb::PropertyNodeId master_id_{prop::masterId};
    mdb::PropertyVersion master_version_{prop::masterVersion};
    /// Null unless the object is to be known as deleted to those who copy from a master.
    NodeId mount_point_;
};

void ObjectHandler::tqlDelete(const tqlengine::DeleteArguments& arguments) {
    if (deleted_) throw errors::tql(errors::ERR_NO_SUCH_ID, fmt::format("{} not found", id_.value));
    if (id_.value == kRootId)
        throw errors::tql(errors::ERR_ACCESS_DENIED, "Cannot delete this object");
    detail::with_faults_as_failures([&] { DeleteOperation(*this, arguments).run(); });
}

}  // namespace dbcache
