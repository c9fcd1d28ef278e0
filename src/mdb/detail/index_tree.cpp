#include "mdb/detail/index_tree.h"

#include <fmt/format.h>

#include "log/log.h"
#include "meter/meter.h"

namespace mdb::detail {

namespace {

const logging::Logger logger{"objectio"};

meter::Group index_group{"index"};
meter::IntegerCounter uniq_direct_search{&index_group, "uniq_direct_search", "",
                                         "Unique index direct searches"};
meter::IntegerCounter uniq_generic_search{&index_group, "uniq_generic_search", "",
                                          "Unique index generic searches"};

[[noreturn]] void throw_corrupt_block(uint32_t block, uint32_t /*magic*/ = 0) {
    throw error_need_repair(fmt::format("Corrupt index block at {}", block));
}

[[noreturn]] void throw_bad_iteration_block(uint32_t block, uint32_t magic) {
    throw error_need_repair(
        fmt::format("Block {} is not a leaf and has bad internal magic ({})", block, magic));
}

constexpr const char* kBadNodeMagic = "Index internal node block had bad magic";

/// True for a leaf, false for a node; anything else is damage and goes to `bad`.
bool is_leaf(std::span<const std::byte> block, uint32_t number,
             void (*bad)(uint32_t, uint32_t) = throw_corrupt_block) {
    if (const LeafView leaf(block); leaf.has_magic()) {
        if (leaf.nkeys() > leaf.capacity()) throw_corrupt_block(number);
        return true;
    }
    const NodeView node(block);
    if (!node.has_magic()) bad(number, util::load_be32(block.data()));
    if (node.nkeys() > node.capacity()) throw_corrupt_block(number);
    return false;
}

}  // namespace

/// The block as the open transaction sees it, until the next block access. Only what the
/// transaction has changed is copied.
std::span<const std::byte> IndexTree::view(uint32_t block) {
    const size_t size = database_.block_size();
    if (!database_.journal().transaction_changed(block))
        return {database_.cache().cached_block(block), size};
    scratch_ = database_.cache().private_block(block);
    return {scratch_.data(), size};
}

LeafView IndexTree::leaf_view(uint32_t block) {
    const LeafView leaf(view(block));
    if (!leaf.has_magic() || leaf.nkeys() > leaf.capacity())
        throw error_need_repair("Index data block had bad magic");
    return leaf;
}

NodeView IndexTree::node_view(uint32_t block) {
    const NodeView node(view(block));
    if (!node.has_magic() || node.nkeys() > node.capacity()) throw error_need_repair(kBadNodeMagic);
    return node;
}

block_handle_t IndexTree::search(const NodeId& id) {
    block_handle_t value;
    switch (lookup(to_key(id), value)) {
        case miss_t::in_node:
            throw error_nomatch("End of binary search in index node - no match");
        case miss_t::in_leaf:
            throw error_nomatch("End of binary search in leaf node - no match");
        case miss_t::none:
            break;
    }
    return value;
}

std::optional<block_handle_t> IndexTree::find(const NodeId& id) {
    block_handle_t value;
    if (lookup(to_key(id), value) != miss_t::none) return {};
    return value;
}

IndexTree::miss_t IndexTree::lookup(IndexKey key, block_handle_t& value) {
    if (!database_.journal().transaction_active()) return direct_lookup(key, value);
    uniq_generic_search.increment();
    const Found found = generic_search(key, descent_t::rightmost);
    if (!found.exact) return miss_t::in_leaf;
    value = leaf_view(path_.bottom().block).value(found.position);
    return miss_t::none;
}

IndexTree::miss_t IndexTree::direct_lookup(IndexKey key, block_handle_t& value) {
    uniq_direct_search.increment();
    uint32_t block = root_;
    for (size_t depth = 0; depth < SearchPath::kGreatestDepth; ++depth) {
        const auto bytes = view(block);
        if (is_leaf(bytes, block)) {
            const LeafView leaf(bytes);
            const Found found = leaf.find(key);
            if (!found.exact) return miss_t::in_leaf;
            value = leaf.value(found.position);
            return miss_t::none;
        }
        const NodeView node(bytes);
        const uint32_t child = node.child(node.upper_bound(key));
        if (child == 0) return miss_t::in_node;
        block = child;
    }
    throw_corrupt_block(block);
}

Found IndexTree::generic_search(IndexKey key, descent_t descent) {
    path_.clear();
    for (uint32_t block = root_;;) {
        const auto bytes = view(block);
        if (is_leaf(bytes, block)) {
            if (path_.empty()) throw_corrupt_block(block);
            path_.push(block, 0);
            return search_leaf(bytes, key, descent);
        }
        const NodeView node(bytes);
        if (node.childless()) {
            path_.push(block, 0);
            create_first_leaf();
            return {0, false};
        }
        const uint32_t position =
            descent == descent_t::first_occurrence ? node.lower_bound(key) : node.upper_bound(key);
        path_.push(block, position);
        block = node.child(position);
        if (block == 0) throw_corrupt_block(path_.bottom().block);
    }
}

Found IndexTree::search_leaf(std::span<const std::byte> bytes, IndexKey key,
                             descent_t descent) const {
    Found found = LeafView(bytes).find(key);
    // Those who look for one exact key take entry 0 as "absent".
    if (!found.exact && descent == descent_t::rightmost) found.position = 0;
    return found;
}

/// The first entry with the key may stand at the start of the next leaf, when the separator before
/// that leaf equals the key.
Found IndexTree::search_first_entry(IndexKey key) {
    Found found = generic_search(key, descent_t::first_occurrence);
    while (!found.exact) {
        const LeafView leaf = leaf_view(path_.bottom().block);
        if (found.position < leaf.nkeys() || leaf.right() == 0) return found;
        if (!searchpath_linkto_right()) return found;
        found = search_leaf(view(path_.bottom().block), key, descent_t::first_occurrence);
    }
    return found;
}

/// The path ends in a node without children. Puts an empty leaf below it, links it with the leaves
/// on both sides, and lets the path end there.
void IndexTree::create_first_leaf() {
    std::optional<Transaction> own;
    if (!database_.journal().transaction_active()) own.emplace(database_.journal());
    const uint32_t parent = path_.bottom().block;
    const uint32_t left = neighbour(side_t::left);
    const uint32_t right = neighbour(side_t::right);
    const uint32_t block = allocate_block(parent, mark_t::leaf);

    BlockBuffer node = private_node(parent);
    NodeEditor(bytes(node)).set_ptr0(block);
    journal_block(node, parent);
    if (right != 0) link(right, side_t::left, block, "Right neighbor is not a leaf node");
    if (left != 0) link(left, side_t::right, block, "Left neighbor is not a leaf node");
    BlockBuffer leaf = database_.pool().acquire();
    LeafEditor editor(bytes(leaf));
    editor.clear();
    editor.set_left(left);
    editor.set_right(right);
    journal_block(leaf, block);
    if (own) own->commit();
    path_.push(block, 0);
}

/// Extends `path` from `block` down to the outermost leaf on `side`, going round empty branches.
/// False, with the path as before, when there is no leaf. The depth of a path bounds the recursion.
bool IndexTree::descend_to_edge(SearchPath& path, uint32_t block, side_t side, BadBlock bad) {
    if (block == 0) return false;
    const auto bytes = view(block);
    if (is_leaf(bytes, block, bad)) {
        path.push(block, 0);
        return true;
    }
    const uint32_t nkeys = NodeView(bytes).nkeys();
    path.push(block, 0);
    for (uint32_t i = 0; i <= nkeys; ++i) {
        const uint32_t position = side == side_t::left ? i : nkeys - i;
        path.bottom().position = position;
        if (descend_to_edge(path, node_view(block).child(position), side, bad)) return true;
    }
    path.pop();
    return false;
}

/// Moves `path` from the block that it ends with to the next leaf on `side`. False, with the path
/// as before, when there is none.
bool IndexTree::step_sideways(SearchPath& path, side_t side) {
    SearchPath moved = path;
    while (moved.depth() > 1) {
        moved.pop();
        PathLevel& level = moved.bottom();
        const uint32_t nkeys = node_view(level.block).nkeys();
        while (side == side_t::left ? level.position > 0 : level.position + 1 <= nkeys) {
            level.position = side == side_t::left ? level.position - 1 : level.position + 1;
            const uint32_t child = node_view(level.block).child(level.position);
            const side_t near = side == side_t::left ? side_t::right : side_t::left;
            if (descend_to_edge(moved, child, near, throw_corrupt_block)) {
                path = moved;
                return true;
            }
        }
    }
    return false;
}

uint32_t IndexTree::neighbour(side_t side) {
    SearchPath beside = path_;
    return step_sideways(beside, side) ? beside.bottom().block : 0;
}

bool IndexTree::searchpath_linkto_right() {
    if (path_.depth() < 2)
        throw error_internal(
            fmt::format("Attempted to modify searchpath bottom element with length {} searchpath",
                        path_.depth()));
    const uint32_t parent = path_.level(path_.depth() - 2).block;
    if (!step_sideways(path_, side_t::right)) return false;
    if (path_.level(path_.depth() - 2).block != parent && logger.enabled(logging::level_t::debug))
        logger.debug("In searchpath_linkto_right: must alter parents in the searchpath\n{}",
                     describe_path());
    return true;
}

std::string IndexTree::describe_path() {
    std::string text;
    for (size_t i = 0; i < path_.depth(); ++i) {
        const PathLevel& level = path_.level(i);
        text += fmt::format("Level {}: index={} {}\n", i, level.position,
                            describe_block(view(level.block)));
    }
    return text;
}

IndexIterator IndexTree::iterator_at(uint32_t leaf, uint32_t entry) {
    IndexIterator iterator;
    iterator.leaf_ = dobj({leaf, 0}, database_.cache().private_block(leaf));
    iterator.block_size_ = database_.block_size();
    iterator.entry_ = entry;
    return iterator;
}

/// The same, but never behind the last entry of a leaf that has another one to its right.
IndexIterator IndexTree::iterator_from(uint32_t leaf, uint32_t entry,
                                       std::optional<NodeId> searched) {
    IndexIterator iterator = iterator_at(leaf, entry);
    iterator.searched_ = searched;
    while (!iterator.valid())
        if (!to_right_leaf(iterator)) break;
    return iterator;
}

/// Moves to the first entry of the leaf to the right; false, with the iterator unchanged, when
/// there is none.
bool IndexTree::to_right_leaf(IndexIterator& iterator) {
    const uint32_t right = LeafView({iterator.leaf_.data, database_.block_size()}).right();
    if (right == 0) return false;
    std::optional<NodeId> searched = iterator.searched_;
    IndexIterator moved = iterator_at(right, 0);
    const LeafView leaf({moved.leaf_.data, database_.block_size()});
    if (!leaf.has_magic() || leaf.nkeys() > leaf.capacity())
        throw error_fubar(searched ? "Loaded multi-leaf block not a leaf block"
                                   : "Loaded multi-leaf block not a leaf block during full-index "
                                     "iteration");
    moved.leaves_passed_ = iterator.leaves_passed_ + 1;
    if (!database_.store().block_in_file(moved.leaves_passed_))
        throw error_fubar(
            fmt::format("Leaves of index {} form a ring through block {}", number_, right));
    iterator = std::move(moved);
    iterator.searched_ = searched;
    return true;
}

IndexIterator IndexTree::find_after(const NodeId& id) {
    const Found found = generic_search(to_key(id), descent_t::rightmost);
    if (!found.exact && found.position != 0)
        throw error_internal("generic_search return index!=0 without id match");
    const uint32_t block = path_.bottom().block;
    const uint32_t above = leaf_view(block).upper_bound(to_key(id));
    IndexIterator iterator = iterator_from(block, above);
    if (!iterator.valid()) iterator.leaf_ = {};
    return iterator;
}

IndexIterator IndexTree::search_first(const NodeId& id) {
    const Found found = generic_search(to_key(id), descent_t::first_occurrence);
    return iterator_from(path_.bottom().block, found.position, id);
}

IndexIterator IndexTree::first() {
    SearchPath path;
    if (!descend_to_edge(path, root_, side_t::left, throw_bad_iteration_block)) return {};
    IndexIterator iterator = iterator_from(path.bottom().block, 0);
    if (!iterator.valid()) iterator.leaf_ = {};
    return iterator;
}

void IndexTree::next(IndexIterator& iterator) {
    if (!iterator.valid()) throw error_internal("Index iterator incremented after invalidation");
    ++iterator.entry_;
    while (!iterator.valid()) {
        if (to_right_leaf(iterator)) continue;
        if (!iterator.searched_) iterator.leaf_ = {};
        return;
    }
}

}  // namespace mdb::detail
