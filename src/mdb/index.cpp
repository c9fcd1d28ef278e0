#include "mdb/index.h"

#include <fmt/format.h>

#include "mdb/detail/index_block.h"
#include "mdb/detail/index_tree.h"

namespace mdb {

bool IndexIterator::valid() const {
    if (!leaf_.loaded()) return false;
    return entry_ < detail::LeafView({leaf_.data, block_size_}).nkeys();
}

bool IndexIterator::at_searched_key() const {
    if (!searched_ || !valid()) return false;
    return detail::LeafView({leaf_.data, block_size_}).key(entry_) == detail::to_key(*searched_);
}

IndexTable::IndexTable(Database& database)
    : database_(database), tree_(std::make_unique<detail::IndexTree>(database)) {
    roots_.fill(kNoRoot);
}

IndexTable::~IndexTable() = default;

uint32_t IndexTable::index_count() const {
    return database_.header().index_count();
}

detail::IndexTree& IndexTable::tree(uint32_t n, const char* message) {
    if (n >= kMaxIndexes || n >= index_count() || roots_[n] == kNoRoot)
        throw error_internal(message);
    tree_->select(n, roots_[n]);
    return *tree_;
}

detail::IndexTree& IndexTable::unique_tree(uint32_t n, const char* message) {
    if (n != node_id_index) throw error_internal(message);
    return tree(n, message);
}

block_handle_t IndexTable::unique_search(uint32_t n, const NodeId& key) {
    return unique_tree(n, "Attempt to use unique search on non-unique index").search(key);
}

std::optional<block_handle_t> IndexTable::unique_find(uint32_t n, const NodeId& key) {
    return unique_tree(n, "Attempt to use unique search on non-unique index").find(key);
}

void IndexTable::unique_update(uint32_t n, const NodeId& key, block_handle_t value, bool existing) {
    auto& index = unique_tree(n, "Attempt to use unique update on non-unique index");
    if (existing)
        index.replace_unique(key, value);
    else
        index.insert_unique(key, value);
}

void IndexTable::unique_delete(uint32_t n, const NodeId& key) {
    unique_tree(n, "Attempt to use unique delete on non-unique index").erase_unique(key);
}

IndexIterator IndexTable::find_after(uint32_t n, const NodeId& key) {
    if (n >= kMaxIndexes || n >= index_count())
        throw error_internal("Unknown index given for iterator find");
    return unique_tree(n, "Attempt to use unique iterator search on non-unique index")
        .find_after(key);
}

IndexIterator IndexTable::non_unique_search(uint32_t n, const NodeId& key) {
    return tree(n, "Attempt to search in non-existant non-unique index").search_first(key);
}

void IndexTable::non_unique_insert(uint32_t n, const NodeId& key, block_handle_t value) {
    constexpr const char* kMessage = "Attempt to insert in non-unique non-existant index";
    if (n == node_id_index) throw error_internal(kMessage);
    tree(n, kMessage).insert(key, value);
}

void IndexTable::non_unique_update(uint32_t n, const NodeId& key, block_handle_t old_value,
                                   block_handle_t new_value) {
    constexpr const char* kMessage = "Attempt to update non-existant non-unique index";
    if (n == node_id_index) throw error_internal(kMessage);
    tree(n, kMessage).replace(key, old_value, new_value);
}

void IndexTable::non_unique_delete(uint32_t n, const NodeId& key, block_handle_t value) {
    constexpr const char* kMessage = "Attempt to delete from non-unique non-existant index";
    if (n == node_id_index) throw error_internal(kMessage);
    tree(n, kMessage).erase(key, value);
}

IndexIterator IndexTable::iterate_first(uint32_t n) {
    return tree(n, "Unknown index given at full-index iteration").first();
}

void IndexTable::iterator_next(IndexIterator& iterator) {
    tree_->next(iterator);
}

NodeId IndexTable::iterator_key(const IndexIterator& iterator) const {
    if (!iterator.valid()) throw error_internal("Index iterator read after invalidation");
    const detail::LeafView leaf({iterator.leaf_.data, iterator.block_size_});
    return detail::to_node_id(leaf.key(iterator.entry_));
}

block_handle_t IndexTable::iterator_value(const IndexIterator& iterator) const {
    if (!iterator.valid()) throw error_internal("Index iterator read after invalidation");
    return detail::LeafView({iterator.leaf_.data, iterator.block_size_}).value(iterator.entry_);
}

}  // namespace mdb
