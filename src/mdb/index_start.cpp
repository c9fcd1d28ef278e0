// Making, building and dropping indexes.

#include <fmt/format.h>
#include <set>
#include <unordered_set>
#include <vector>

#include "log/log.h"
#include "mdb/database.h"
#include "mdb/detail/index_keys.h"
#include "mdb/detail/index_tree.h"
#include "mdb/detail/object_access.h"
#include "mdb/index.h"

namespace mdb {

namespace {

const logging::Logger logger{"objectio"};

struct Entry {
    NodeId key;
    block_handle_t value;
    friend auto operator<=>(const Entry&, const Entry&) = default;
};

}  // namespace

void IndexTable::init_required_indexes() {
    if (database_.block_size() == 0)
        throw error_internal("Index initialization attempted before MDB was initialized");
    if (index_count() < kRequiredIndexes)
        throw error_fubar("Meta database does not have the two required indexes defined");
    for (uint32_t n = 0; n < kRequiredIndexes; ++n)
        static_cast<void>(open_root(n, database_.header().index_root(n)));
    // An object stored before ensure_index() has seen the others must not be missing from them.
    for (uint32_t n = kRequiredIndexes; n < index_count(); ++n) {
        const uint32_t block = database_.header().index_root(n);
        const mark_t mark = database_.allocator().query_mark(block);
        if (mark != mark_t::root_index && mark != mark_t::empty) continue;
        // A root that was named but not made, as a crash between the two leaves one, is made before
        // its block, which is empty, can be handed out. One that is not built to its end is mended
        // when that is done.
        if (open_root(n, block)) roots_[n] = kNoRoot;
    }
    logger.info("Node ID and Parent ID indexes are initialized");
}

/// Puts the root of index `n` in the table and makes its node if the block is still empty. True in
/// this case, and when the index isn't built to its end.
bool IndexTable::open_root(uint32_t n, uint32_t block) {
    const mark_t mark = database_.allocator().query_mark(block);
    if (mark != mark_t::root_index && mark != mark_t::empty)
        throw error_fubar(fmt::format("Non-index node at index-block {}", block));
    roots_[n] = block;
    if (mark == mark_t::root_index) return tree(n, "Index not known").being_built();
    database_.store().ensure_block(block);
    Transaction transaction(database_.journal());
    tree_->create_root(block, n >= kRequiredIndexes);
    transaction.commit(false);
    logger.info("Created root index node at block {}", block);
    return true;
}

bool IndexTable::ensure_index(uint32_t n) {
    if (n >= kMaxIndexes || n > index_count())
        throw error_internal("Attempt to initialize sparse index array");
    if (n == index_count()) {
        Header header = database_.header();
        header.add_index(database_.allocator().allocate_empty_block(0, true));
        database_.write_header(header);
    }
    return open_root(n, database_.header().index_root(n));
}

bool IndexTable::detect_aliasing(uint32_t n) {
    constexpr const char* kMessage = "Index not known - cannot detect aliasing";
    static_cast<void>(tree(n, kMessage));
    const uint32_t child = tree_->root_child();
    if (child == 0) return false;
    const mark_t mark = database_.allocator().query_mark(child);
    return mark != mark_t::non_root_index && mark != mark_t::leaf;
}

void IndexTable::drop_index(uint32_t n) {
    static_cast<void>(tree(n, "Index not known - cannot drop"));
    Header header = database_.header();
    Transaction transaction(database_.journal());
    database_.allocator().set_mark(roots_[n], mark_t::empty);
    header.remove_index(n);
    database_.journal_header(header);
    transaction.commit(false);
    database_.take_header(header);
    for (uint32_t i = n; i + 1 < kMaxIndexes; ++i) roots_[i] = roots_[i + 1];
    roots_[kMaxIndexes - 1] = kNoRoot;
    database_.journal().full_checkpoint();
}

void IndexTable::build_index(block_handle_t root, uint32_t n) {
    if (n < kRequiredIndexes || n >= kMaxIndexes)
        throw error_internal(fmt::format("Cannot reconstruct index {}", n));
    // A build that was cut off has left entries. Objects may have changed since then.
    std::set<Entry> left_over;
    for (IndexIterator it = iterate_first(n); it.valid(); iterator_next(it))
        left_over.insert({iterator_key(it), iterator_value(it)});
    const auto enter = [&](block_handle_t handle) {
        const auto keys = detail::read_object_keys(detail::current_object(database_, handle));
        if (keys[n] && left_over.erase({*keys[n], handle}) == 0) {
            Transaction transaction(database_.journal());
            non_unique_insert(n, *keys[n], handle);
            transaction.commit();
        }
        return keys;
    };
    std::unordered_set<NodeId> walked;
    std::vector<block_handle_t> open{root};
    while (!open.empty()) {
        const block_handle_t handle = open.back();
        open.pop_back();
        const auto keys = enter(handle);
        if (!keys[node_id_index]) continue;
        const NodeId id = *keys[node_id_index];
        if (!walked.insert(id).second)
            throw error_need_repair(fmt::format("Object {} is its own ancestor", id.to_string()));
        // The last child goes on the stack first, so that children are taken in the order of the
        // index.
        const size_t children = open.size();
        for (IndexIterator it = non_unique_search(parent_id_index, id); it.at_searched_key();
             iterator_next(it))
            open.push_back(iterator_value(it));
        std::reverse(open.begin() + static_cast<std::ptrdiff_t>(children), open.end());
    }
    // What hangs on no object is changed and deleted through the same indexes: tombstones, what
    // still stands below them, leftovers of an aborted create.
    for (IndexIterator it = iterate_first(node_id_index); it.valid(); iterator_next(it))
        if (!walked.contains(iterator_key(it))) enter(iterator_value(it));
    for (const Entry& entry : left_over) {
        Transaction transaction(database_.journal());
        non_unique_delete(n, entry.key, entry.value);
        transaction.commit();
    }
    finish_index(n);
}

void IndexTable::finish_index(uint32_t n) {
    detail::IndexTree& index = tree(n, "Index not known - cannot finish");
    if (!index.being_built()) return;
    Transaction transaction(database_.journal());
    index.finish_building();
    transaction.commit(false);
}

void start_indexes(IndexTable& indexes, block_handle_t root, uint32_t format_number) {
    if (indexes.ensure_index(active_parent_index)) {
        logger.info("Active ParentId index is missing from your database - will build...");
        indexes.build_index(root, active_parent_index);
        logger.info("Active ParentId index construction complete. Resuming operations.");
    } else if (indexes.detect_aliasing(active_parent_index)) {
        logger.info("Active parent ID index pointer aliasing detected. Will correct.");
        // Dropping it alone would move those above it to the numbers of others. They can be built
        // from the objects just as well, so they go first.
        for (uint32_t n = indexes.index_count(); n-- > active_parent_index;) indexes.drop_index(n);
        logger.info("Will re-create active parent ID index without pointer aliasing.");
        if (!indexes.ensure_index(active_parent_index)) {
            logger.warning(
                "Odd... We just removed the active parent id index, but it does not need "
                "re-creation.");
            throw error::syserror("Deleted index not deleted.");
        }
        indexes.build_index(root, active_parent_index);
        logger.info("Active parent ID index pointer aliasing issue corrected.");
    }
    if (indexes.ensure_index(inherits_index)) {
        logger.info("Inherits index is missing from your database - will build...");
        indexes.build_index(root, inherits_index);
        logger.info("Inherits index construction complete. Resuming operations.");
    }
    if (indexes.ensure_index(master_id_index)) {
        logger.info("MasterId index is missing from your database - will build...");
        indexes.build_index(root, master_id_index);
        logger.info("MasterId index construction complete. Resuming operations.");
    }
    if (!indexes.ensure_index(alert_notify_index)) return;
    if (format_number < kFormatWithAlertNotify) {
        logger.info("AlertNotifyObject index is missing from your database - creating empty");
        indexes.finish_index(alert_notify_index);
        return;
    }
    logger.info("AlertNotifyObject index is missing from your database - will build...");
    indexes.build_index(root, alert_notify_index);
    logger.info("AlertNotifyObject index construction complete. Resuming operations.");
}

}  // namespace mdb
