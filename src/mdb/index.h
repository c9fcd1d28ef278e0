// The indexes: up to six B+ trees in the database file that lead from a key, always a NodeId, to
// the places of objects. Index 0 is unique and says where the object with an id lies; the others
// tell which objects have a given value in a given property. The layout of the blocks is told in
// index_layout.h.
//
// Trees are not rebalanced: a block leaves its tree only when it is empty, and a tree never loses
// height. Every change needs an open transaction and journals each changed block whole. A failure
// in the middle leaves the transaction to the caller, who aborts it; nothing is kept in memory but
// the roots.
//
// Besides the errors named below every operation throws error_internal for a number that is no
// index, and error_need_repair or error_fubar when it meets damage.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "mdb/block_layout.h"
#include "mdb/dobj.h"
#include "util/node_id.h"

namespace mdb {

class Database;

namespace detail {
class IndexTree;
}

/// The numbers of the indexes and the property that each takes its key from.
enum index_t : uint32_t {
    node_id_index = 0,        ///< 0, the object's own id; the only unique one
    parent_id_index = 1,      ///< 2, the parent
    active_parent_index = 2,  ///< 2, if property 502 is present and true
    inherits_index = 3,       ///< 59
    master_id_index = 4,      ///< 3800
    alert_notify_index = 5,   ///< 3901
};
inline constexpr uint32_t kMaxIndexes = 6;
/// These two every database has.
inline constexpr uint32_t kRequiredIndexes = 2;

namespace detail {
/// The keys of one object by index number; none where it has no entry.
using ObjectKeys = std::array<std::optional<NodeId>, kMaxIndexes>;
}  // namespace detail

/// A place in an index. It holds its own copy of a leaf and doesn't see later changes: who needs
/// the new state searches again from the last key.
class IndexIterator {
  public:
    /// True while the iterator stands at an entry.
    [[nodiscard]] bool valid() const;
    /// True while it stands at an entry with the key that non_unique_search() was asked for.
    [[nodiscard]] bool at_searched_key() const;

  private:
    friend class IndexTable;
    friend class detail::IndexTree;
    /// The leaf; without data when the iterator has run off the end.
    dobj leaf_;
    uint32_t block_size_ = 0;
    uint32_t entry_ = 0;
    /// Leaves that it has moved over; more than there are blocks mean that the leaves form a ring.
    uint32_t leaves_passed_ = 0;
    /// Set by a non-unique search.
    std::optional<NodeId> searched_;
};

class IndexTable {
  public:
    /// The database must outlive the table, and be open before the first operation.
    explicit IndexTable(Database& database);
    ~IndexTable();
    IndexTable(const IndexTable&) = delete;
    IndexTable& operator=(const IndexTable&) = delete;

    /// Takes the roots of indexes 0 and 1 from the header and makes their nodes if the blocks are
    /// still empty.
    void init_required_indexes();
    /// Takes the root of index `n` from the header, or gives the header a new one when `n` is the
    /// first number that it lacks. True when the index must be built: it has just been created, or
    /// its building was cut off. Commits on its own.
    [[nodiscard]] bool ensure_index(uint32_t n);
    /// Fills index `n`, 2 to 5, and finishes it: in the order of the tree from the object at `root`
    /// and all below it, then from all other objects, in the order of their ids. What it holds
    /// already stays if it is right and goes if it isn't. Each change is a transaction.
    void build_index(block_handle_t root, uint32_t n);
    /// Notes durably that nothing is missing from index `n`. Until then ensure_index() says at each
    /// start that it has to be built, and changes of objects before that pass it by.
    void finish_index(uint32_t n);
    /// True when the root's first child is a block that is no part of an index.
    [[nodiscard]] bool detect_aliasing(uint32_t n);
    /// Takes index `n` out of the header, without a walk of its tree, whose pointers need not be
    /// sound. The roots above it move down one place. Ends with a full checkpoint.
    void drop_index(uint32_t n);
    /// How many indexes the header has.
    [[nodiscard]] uint32_t index_count() const;

    /// Place of the object with `key`; throws error_nomatch. With no transaction open it copies no
    /// block.
    [[nodiscard]] block_handle_t unique_search(uint32_t n, const NodeId& key);
    /// The same, none instead of error_nomatch.
    [[nodiscard]] std::optional<block_handle_t> unique_find(uint32_t n, const NodeId& key);
    /// Without `existing` inserts, and throws error_index_conflict when the key is there; with it
    /// replaces the value, and throws error_index_noentry when it isn't.
    void unique_update(uint32_t n, const NodeId& key, block_handle_t value, bool existing);
    /// Throws error_fubar when the key isn't there.
    void unique_delete(uint32_t n, const NodeId& key);
    /// At the first entry of a unique index with a key above `key`; invalid when there is none.
    [[nodiscard]] IndexIterator find_after(uint32_t n, const NodeId& key);

    /// At the first entry with `key`, else at the first one above it; invalid at the end of the
    /// index. In an index without a leaf this makes the first one, in a transaction of its own
    /// unless one is open.
    [[nodiscard]] IndexIterator non_unique_search(uint32_t n, const NodeId& key);
    /// Adds an entry behind those with the same key.
    void non_unique_insert(uint32_t n, const NodeId& key, block_handle_t value);
    /// Replaces the value of one entry; throws error_internal when there is no such entry.
    void non_unique_update(uint32_t n, const NodeId& key, block_handle_t old_value,
                           block_handle_t new_value);
    /// Throws error_fubar when there is no such entry.
    void non_unique_delete(uint32_t n, const NodeId& key, block_handle_t value);

    /// At the first entry of any index; invalid when it is empty.
    [[nodiscard]] IndexIterator iterate_first(uint32_t n);
    /// To the next entry. After the last one the iterator is invalid. Throws error_internal when it
    /// was so before.
    void iterator_next(IndexIterator& iterator);
    /// Key and value of the entry at which a valid iterator stands; error_internal otherwise.
    [[nodiscard]] NodeId iterator_key(const IndexIterator& iterator) const;
    [[nodiscard]] block_handle_t iterator_value(const IndexIterator& iterator) const;

    /// Brings all indexes from an object's old keys and place to its new ones. No keys on one side:
    /// the object is new, or gone.
    void update_indexes(const detail::ObjectKeys& old_keys, block_handle_t old_handle,
                        const detail::ObjectKeys& new_keys, block_handle_t new_handle);

  private:
    /// The tree of index `n`, which must be below the count of the header; `message` for
    /// error_internal otherwise.
    detail::IndexTree& tree(uint32_t n, const char* message);
    /// The same for operations of unique indexes.
    detail::IndexTree& unique_tree(uint32_t n, const char* message);
    bool open_root(uint32_t n, uint32_t block);
    void update_non_unique(uint32_t n, const std::optional<NodeId>& old_key,
                           block_handle_t old_handle, const std::optional<NodeId>& new_key,
                           block_handle_t new_handle);

    static constexpr uint32_t kNoRoot = 0xFFFFFFFF;

    Database& database_;
    /// Roots as in the header; all ones where there is none.
    std::array<uint32_t, kMaxIndexes> roots_;
    std::unique_ptr<detail::IndexTree> tree_;
};

/// From this database format on a missing alert-notify index is built, not left empty.
inline constexpr uint32_t kFormatWithAlertNotify = 7;

/// Makes indexes 2 to 5 where they are missing and builds them from the object at `root` and all
/// below it, and mends an index 2 whose pointers lead out of it. To be called once at start, after
/// init_required_indexes() and once the root object exists. Throws error::syserror when index 2
/// could not be dropped.
void start_indexes(IndexTable& indexes, block_handle_t root, uint32_t format_number);

}  // namespace mdb
