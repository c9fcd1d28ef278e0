// The algorithms of one index: search, insertion, split, deletion. IndexTable has one of these and
// points it at the index that an operation names. It reads blocks through the cache, or as private
// copies where the open transaction has changed them, and journals each block that it changes,
// whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "mdb/allocator.h"
#include "mdb/database.h"
#include "mdb/detail/index_block.h"
#include "mdb/detail/search_path.h"
#include "mdb/index.h"

namespace mdb::detail {

class IndexTree {
  public:
    explicit IndexTree(Database& database) : database_(database) {}

    /// Works on index `number` with its root at `root` from now on.
    void select(uint32_t number, uint32_t root) {
        number_ = number;
        root_ = root;
    }
    [[nodiscard]] bool unique() const { return number_ == node_id_index; }

    /// Value of `key` in a unique tree. Reads committed blocks without copying when no transaction
    /// is open. Throws error_nomatch.
    [[nodiscard]] block_handle_t search(const NodeId& key);
    /// The same, none when there is no entry.
    [[nodiscard]] std::optional<block_handle_t> find(const NodeId& key);
    void insert_unique(const NodeId& key, block_handle_t value);
    void replace_unique(const NodeId& key, block_handle_t value);
    void erase_unique(const NodeId& key);
    [[nodiscard]] IndexIterator find_after(const NodeId& key);

    [[nodiscard]] IndexIterator search_first(const NodeId& key);
    void insert(const NodeId& key, block_handle_t value);
    void replace(const NodeId& key, block_handle_t old_value, block_handle_t new_value);
    void erase(const NodeId& key, block_handle_t value);

    [[nodiscard]] IndexIterator first();
    void next(IndexIterator& iterator);

    /// The leftmost child of the root, 0 when there is none.
    [[nodiscard]] uint32_t root_child() { return node_view(root_).child(0); }
    /// Writes an empty node into `block` and marks it as a root; needs an open transaction.
    void create_root(uint32_t block, bool being_built);
    [[nodiscard]] bool being_built() { return node_view(root_).being_built(); }
    /// Takes the note out of the root; needs an open transaction.
    void finish_building();

  private:
    /// Which child a search takes at a separator equal to its key.
    enum class descent_t {
        rightmost,        ///< the child right of it: unique trees and insertions
        first_occurrence  ///< the child left of it, where equal keys may lie too
    };
    enum class side_t { left, right };
    /// Throws for a block that is neither leaf nor node; gets its number and magic.
    using BadBlock = void (*)(uint32_t block, uint32_t magic);

    // index_tree.cpp: descending and iterating
    [[nodiscard]] std::span<const std::byte> view(uint32_t block);
    [[nodiscard]] LeafView leaf_view(uint32_t block);
    [[nodiscard]] NodeView node_view(uint32_t block);
    enum class miss_t { none, in_node, in_leaf };
    [[nodiscard]] miss_t lookup(IndexKey key, block_handle_t& value);
    [[nodiscard]] miss_t direct_lookup(IndexKey key, block_handle_t& value);
    Found generic_search(IndexKey key, descent_t descent);
    Found search_first_entry(IndexKey key);
    Found search_leaf(std::span<const std::byte> leaf, IndexKey key, descent_t descent) const;
    void create_first_leaf();
    [[nodiscard]] bool descend_to_edge(SearchPath& path, uint32_t block, side_t side, BadBlock bad);
    [[nodiscard]] bool step_sideways(SearchPath& path, side_t side);
    [[nodiscard]] uint32_t neighbour(side_t side);
    [[nodiscard]] bool searchpath_linkto_right();
    [[nodiscard]] std::string describe_path();
    [[nodiscard]] IndexIterator iterator_at(uint32_t leaf, uint32_t entry);
    [[nodiscard]] IndexIterator iterator_from(uint32_t leaf, uint32_t entry,
                                              std::optional<NodeId> searched = {});
    [[nodiscard]] bool to_right_leaf(IndexIterator& iterator);

    // index_tree_change.cpp: insertion and deletion
    [[nodiscard]] std::span<std::byte> bytes(BlockBuffer& buffer) const {
        return {buffer.data(), database_.block_size()};
    }
    [[nodiscard]] BlockBuffer private_leaf(uint32_t block, const char* fubar_message = nullptr);
    [[nodiscard]] BlockBuffer private_node(uint32_t block);
    void journal_block(const BlockBuffer& buffer, uint32_t block);
    [[nodiscard]] uint32_t allocate_block(uint32_t hint, mark_t mark);
    void free_block(uint32_t block);
    void check_links(uint32_t leaf);
    void insert_at_leaf(IndexKey key, block_handle_t value);
    void insert_into_leaf(LeafEditor& leaf, IndexKey key, block_handle_t value) const;
    void split_leaf(BlockBuffer& old_copy, IndexKey key, block_handle_t value);
    [[nodiscard]] uint32_t leaf_split_point(const LeafView& leaf) const;
    void insert_separator(SearchPath path, IndexKey key, uint32_t child);
    void insert_into_node(NodeEditor& node, const PathLevel& level, IndexKey key,
                          uint32_t child) const;
    void split_root(NodeEditor& root, PathLevel level, IndexKey key, uint32_t child);
    [[nodiscard]] uint32_t node_split_point(const NodeView& node, const char* where) const;
    void erase_entry(uint32_t entry);
    void rename_key(SearchPath path, IndexKey key);
    void remove_child(SearchPath path, uint32_t child);
    void unlink_leaf(const LeafView& leaf);
    void link(uint32_t block, side_t side, uint32_t to, const char* fubar_message = nullptr);

    Database& database_;
    uint32_t number_ = 0;
    uint32_t root_ = 0;
    /// The path of the search done last, ending in a leaf.
    SearchPath path_;
    /// Holds what view() gave out when the open transaction had changed the block.
    BlockBuffer scratch_;
};

/// "B:O".
std::string describe(block_handle_t handle);
/// A leaf or node with all its entries in one line, as the texts of errors show it.
std::string describe_block(std::span<const std::byte> block);

}  // namespace mdb::detail
