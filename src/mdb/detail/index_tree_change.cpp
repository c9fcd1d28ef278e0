// Insertion into and deletion from an index tree.

#include <fmt/format.h>

#include "log/log.h"
#include "mdb/detail/index_tree.h"

namespace mdb::detail {

namespace {

const logging::Logger logger{"objectio"};

}  // namespace

std::string describe(block_handle_t handle) {
    return fmt::format("{}:{}", handle.block, handle.offset);
}

std::string describe_block(std::span<const std::byte> block) {
    std::string text;
    if (const LeafView leaf(block); leaf.has_magic()) {
        text = fmt::format("Leaf node: (left: {})(right: {})(nkeys: {})", leaf.left(), leaf.right(),
                           leaf.nkeys());
        for (uint32_t i = 0; i < std::min(leaf.nkeys(), leaf.capacity()); ++i)
            text += fmt::format("(key {}: {}->{})", i, to_node_id(leaf.key(i)).to_string(),
                                describe(leaf.value(i)));
        return text;
    }
    const NodeView node(block);
    if (!node.has_magic()) return "<!!not an index block!!>";
    text = fmt::format("Index node: (nkeys: {})(ptr0: {})", node.nkeys(), node.child(0));
    for (uint32_t i = 0; i < std::min(node.nkeys(), node.capacity()); ++i)
        text += fmt::format("(key {}: {} rptr={})", i, to_node_id(node.key(i)).to_string(),
                            node.child(i + 1));
    return text;
}

BlockBuffer IndexTree::private_leaf(uint32_t block, const char* fubar_message) {
    BlockBuffer copy = database_.cache().private_block(block);
    const LeafView leaf(bytes(copy));
    if (!leaf.has_magic() || leaf.nkeys() > leaf.capacity()) {
        if (fubar_message != nullptr) throw error_fubar(fubar_message);
        throw error_need_repair("Index data block had bad magic");
    }
    return copy;
}

BlockBuffer IndexTree::private_node(uint32_t block) {
    BlockBuffer copy = database_.cache().private_block(block);
    const NodeView node(bytes(copy));
    if (!node.has_magic() || node.nkeys() > node.capacity())
        throw error_need_repair("Index internal node block had bad magic");
    return copy;
}

void IndexTree::journal_block(const BlockBuffer& buffer, uint32_t block) {
    database_.journal().journal_update(buffer.data(), database_.block_size(),
                                       database_.store().block_offset(block));
}

uint32_t IndexTree::allocate_block(uint32_t hint, mark_t mark) {
    const uint32_t block = database_.allocator().allocate_empty_block(hint, true);
    database_.allocator().set_mark(block, mark);
    return block;
}

void IndexTree::free_block(uint32_t block) {
    const mark_t mark = database_.allocator().query_mark(block);
    if (mark == mark_t::empty)
        throw error_fubar(fmt::format(
            "When deleting index block {} we found that the block is already marked as free",
            block));
    if (mark != mark_t::root_index && mark != mark_t::non_root_index && mark != mark_t::leaf)
        throw error_fubar(
            fmt::format("When deleting index block {} we found that the allocation map does not "
                        "agree that this is an index block",
                        block));
    if (mark == mark_t::root_index) logger.warning("Deallocating index root node {}", block);
    BlockBuffer zeros = database_.pool().acquire();
    std::memset(zeros.data(), 0, database_.block_size());
    journal_block(zeros, block);
    database_.allocator().set_mark(block, mark_t::empty);
}

void IndexTree::finish_building() {
    BlockBuffer root = private_node(root_);
    NodeEditor(bytes(root)).set_being_built(false);
    journal_block(root, root_);
}

void IndexTree::create_root(uint32_t block, bool being_built) {
    database_.allocator().set_mark(block, mark_t::root_index);
    BlockBuffer root = database_.pool().acquire();
    NodeEditor node(bytes(root));
    node.clear();
    node.set_being_built(being_built);
    journal_block(root, block);
}

void IndexTree::insert_unique(const NodeId& id, block_handle_t value) {
    const IndexKey key = to_key(id);
    const Found found = generic_search(key, descent_t::rightmost);
    const uint32_t block = path_.bottom().block;
    if (found.exact) {
        const block_handle_t previous = leaf_view(block).value(found.position);
        throw error_index_conflict(fmt::format("Conflict on ID {} previously {} new {}",
                                               id.to_string(), describe(previous),
                                               describe(value)));
    }
    check_links(block);
    insert_at_leaf(key, value);
}

void IndexTree::replace_unique(const NodeId& id, block_handle_t value) {
    const Found found = generic_search(to_key(id), descent_t::rightmost);
    if (!found.exact)
        throw error_index_noentry(
            fmt::format("Missing entry for ID {} new {}", id.to_string(), describe(value)));
    const uint32_t block = path_.bottom().block;
    BlockBuffer copy = private_leaf(block);
    LeafEditor(bytes(copy)).set_value(found.position, value);
    journal_block(copy, block);
}

void IndexTree::erase_unique(const NodeId& id) {
    const Found found = generic_search(to_key(id), descent_t::rightmost);
    if (!found.exact) throw error_fubar("NodeId index deletion could not find element to delete");
    erase_entry(found.position);
}

void IndexTree::insert(const NodeId& id, block_handle_t value) {
    generic_search(to_key(id), descent_t::rightmost);
    insert_at_leaf(to_key(id), value);
}

void IndexTree::replace(const NodeId& id, block_handle_t old_value, block_handle_t new_value) {
    uint32_t candidates = 0;
    for (IndexIterator it = search_first(id); it.at_searched_key(); next(it), ++candidates) {
        const uint32_t block = it.leaf_.block;
        LeafEditor leaf(bytes(it.leaf_.copy));
        if (leaf.value(it.entry_) != old_value) continue;
        leaf.set_value(it.entry_, new_value);
        journal_block(it.leaf_.copy, block);
        return;
    }
    throw error_internal(fmt::format(
        "Update of non-unique index using non-existing block handle ({} candidates)", candidates));
}

void IndexTree::erase(const NodeId& id, block_handle_t value) {
    const IndexKey key = to_key(id);
    const Found found = search_first_entry(key);
    if (!found.exact)
        throw error_fubar(fmt::format(
            "Non-unique index ({}) deletion could not find non-empty leaf for deletion", number_));
    for (uint32_t entry = found.position;; entry = 0) {
        const LeafView leaf = leaf_view(path_.bottom().block);
        for (; entry < leaf.nkeys(); ++entry) {
            if (leaf.value(entry) == value) {
                if (leaf.key(entry) != key)
                    throw error_internal(fmt::format(
                        "Bad id ({}) when searching for {} at index {} with correct data in leaf "
                        "{}",
                        to_node_id(leaf.key(entry)).to_string(), id.to_string(), entry,
                        path_.bottom().block));
                return erase_entry(entry);
            }
            if (leaf.key(entry) != key) break;
        }
        const uint32_t right = leaf.right();
        if (entry < leaf.nkeys() || right == 0)
            throw error_fubar(fmt::format(
                "Non-unique index ({}) deletion could not find element to delete", number_));
        if (!searchpath_linkto_right())
            throw error_internal(
                "Could not load right leaf when searching for leaf to delete key from");
        if (path_.bottom().block != right) throw error_fubar("Mismatched left/right pairs found");
    }
}

/// The leaves beside `leaf`, found through the path, must point back at it.
void IndexTree::check_links(uint32_t leaf) {
    const LeafView here = leaf_view(leaf);
    const uint32_t left = here.left();
    const uint32_t right = here.right();
    if (left != 0) {
        const uint32_t beside = neighbour(side_t::left);
        if (beside == 0) throw error_fubar("Left pointer set, but no data found");
        if (leaf_view(beside).right() != leaf)
            throw error_fubar("Our left element points to a bad right element");
    }
    if (right != 0) {
        const uint32_t beside = neighbour(side_t::right);
        if (beside == 0) throw error_fubar("Right pointer set, but no data found");
        if (leaf_view(beside).left() != leaf)
            throw error_fubar("Our right element points to a bad left element");
    }
}

/// Inserts into the leaf at the end of the path, or splits it.
void IndexTree::insert_at_leaf(IndexKey key, block_handle_t value) {
    const uint32_t block = path_.bottom().block;
    BlockBuffer copy = private_leaf(block);
    LeafEditor leaf(bytes(copy));
    if (leaf.full()) return split_leaf(copy, key, value);
    insert_into_leaf(leaf, key, value);
    journal_block(copy, block);
}

void IndexTree::insert_into_leaf(LeafEditor& leaf, IndexKey key, block_handle_t value) const {
    const uint32_t place = leaf.upper_bound(key);
    if (place < leaf.nkeys() && leaf.key(place) <= key)
        throw error_fubar(fmt::format(
            "Simple leafnode insertion invariant failed: leafnode key at index {} is {} which is "
            "< {}. {}",
            place, to_node_id(leaf.key(place)).to_string(), to_node_id(key).to_string(),
            describe_block(leaf.bytes())));
    leaf.insert(place, key, value);
}

/// Where the full leaf is cut: in the middle, but not within a run of equal keys unless the run
/// starts the leaf.
uint32_t IndexTree::leaf_split_point(const LeafView& leaf) const {
    const uint32_t middle = (leaf.nkeys() + 1) / 2;
    if (unique() || leaf.key(middle) == leaf.key(0)) return middle;
    const Found first = leaf.find(leaf.key(middle));
    if (!first.exact || first.position > middle)
        throw error_internal(
            "When fixing up first-key assumption in leaf: couldn't find ourselves...");
    return first.position;
}

void IndexTree::split_leaf(BlockBuffer& old_copy, IndexKey key, block_handle_t value) {
    const uint32_t old_block = path_.bottom().block;
    const uint32_t new_block = allocate_block(old_block, mark_t::leaf);
    LeafEditor old_leaf(bytes(old_copy));
    BlockBuffer new_copy = database_.pool().acquire();
    LeafEditor new_leaf(bytes(new_copy));
    new_leaf.clear();
    old_leaf.move_tail(leaf_split_point(old_leaf), new_leaf);
    const IndexKey separator = new_leaf.key(0);
    insert_into_leaf(separator <= key ? new_leaf : old_leaf, key, value);

    const uint32_t right = old_leaf.right();
    if (right != 0) {
        if (leaf_view(right).left() != old_block)
            throw error_fubar("Mismatched left/right pairs found");
        link(right, side_t::left, new_block);
    }
    new_leaf.set_right(right);
    new_leaf.set_left(old_block);
    old_leaf.set_right(new_block);
    journal_block(old_copy, old_block);
    journal_block(new_copy, new_block);
    insert_separator(path_.parents(), separator, new_block);
}

/// Puts `key` with `child` right of it into the node at the end of `path`, at the position of the
/// child that was split. A full node is split in turn, so this goes up until one has room or the
/// root has been split.
void IndexTree::insert_separator(SearchPath path, IndexKey key, uint32_t child) {
    for (;;) {
        if (path.empty()) throw error_internal("Wanted to insert in index node with no self");
        const PathLevel level = path.bottom();
        BlockBuffer copy = private_node(level.block);
        NodeEditor node(bytes(copy));
        if (!node.full()) {
            insert_into_node(node, level, key, child);
            return journal_block(copy, level.block);
        }
        if (path.depth() == 1) {
            split_root(node, level, key, child);
            return journal_block(copy, level.block);
        }
        const uint32_t new_block = allocate_block(level.block, mark_t::non_root_index);
        BlockBuffer new_copy = database_.pool().acquire();
        NodeEditor new_node(bytes(new_copy));
        new_node.clear();
        const uint32_t h = node_split_point(node, "index");
        const IndexKey middle = node.split(h, new_node);
        if (level.position <= h)
            insert_into_node(node, level, key, child);
        else
            insert_into_node(new_node, {new_block, level.position - h - 1}, key, child);
        journal_block(copy, level.block);
        journal_block(new_copy, new_block);
        key = middle;
        child = new_block;
        path.pop();
    }
}

void IndexTree::insert_into_node(NodeEditor& node, const PathLevel& level, IndexKey key,
                                 uint32_t child) const {
    const uint32_t p = level.position;
    if (p > node.nkeys())
        throw error_internal(
            fmt::format("Index node fixed-pos. insertion in node {} got index {}", level.block, p));
    if (p < node.nkeys() && node.key(p) < key)
        throw error_fubar(
            fmt::format("Index node holds badly ordered keys - or fixed position insert had bad "
                        "value ({}). {}",
                        p, describe_block(node.bytes())));
    node.insert(p, key, child);
}

/// Moves the content of the full root into two new nodes and makes it the fork above them. The
/// caller journals the root, whose block stays.
void IndexTree::split_root(NodeEditor& root, PathLevel level, IndexKey key, uint32_t child) {
    if (root.nkeys() <= 1) throw error_internal("Root is split but has less than two keys");
    const uint32_t h = node_split_point(root, "root");
    const uint32_t left_block = allocate_block(level.block, mark_t::non_root_index);
    const uint32_t right_block = allocate_block(level.block, mark_t::non_root_index);
    BlockBuffer left_copy = database_.pool().acquire();
    BlockBuffer right_copy = database_.pool().acquire();
    NodeEditor left(bytes(left_copy));
    NodeEditor right(bytes(right_copy));
    left.clear();
    right.clear();
    left.copy_head(root, h);
    const IndexKey middle = root.split(h, right);
    if (level.position <= h)
        insert_into_node(left, {left_block, level.position}, key, child);
    else
        insert_into_node(right, {right_block, level.position - h - 1}, key, child);
    root.become_fork(left_block, middle, right_block);
    journal_block(left_copy, left_block);
    journal_block(right_copy, right_block);
}

uint32_t IndexTree::node_split_point(const NodeView& node, const char* where) const {
    const uint32_t middle = node.nkeys() / 2;
    if (unique() || node.key(middle) == node.key(0)) return middle;
    const uint32_t first = node.lower_bound(node.key(middle));
    if (first > middle || node.key(first) != node.key(middle))
        throw error_internal(fmt::format(
            "When fixing up first-key assumption in {}: couldn't find ourselves...", where));
    return first;
}

void IndexTree::erase_entry(uint32_t entry) {
    const uint32_t block = path_.bottom().block;
    BlockBuffer copy = private_leaf(block);
    LeafEditor leaf(bytes(copy));
    if (entry >= leaf.nkeys())
        throw error_internal(
            fmt::format("Cannot delete index {} in leaf with {} elements", entry, leaf.nkeys()));
    if (leaf.nkeys() == 1) remove_child(path_.parents(), block);
    leaf.erase(entry);
    if (leaf.nkeys() > 0) {
        rename_key(path_.parents(), leaf.key(0));
        return journal_block(copy, block);
    }
    unlink_leaf(leaf);
    free_block(block);
}

/// Lets the separator that stands for a leaf follow its first key. The leftmost leaf has none.
void IndexTree::rename_key(SearchPath path, IndexKey key) {
    if (path.empty()) throw error_fubar("Index key rename above root attempted");
    for (; !path.empty(); path.pop()) {
        const PathLevel level = path.bottom();
        const uint32_t p = level.position;
        if (p == 0) continue;
        const NodeView seen = node_view(level.block);
        if ((p > 1 && seen.key(p - 2) > key) || (p < seen.nkeys() && key > seen.key(p))) continue;
        if (seen.key(p - 1) == key) return;
        BlockBuffer copy = private_node(level.block);
        NodeEditor(bytes(copy)).set_key(p - 1, key);
        return journal_block(copy, level.block);
    }
}

/// Takes the pointer to `child` out of the node at the end of `path`. A node that loses its only
/// child goes too.
void IndexTree::remove_child(SearchPath path, uint32_t child) {
    for (;; path.pop()) {
        if (path.empty()) throw error_internal("Index node deletion called with empty search path");
        const PathLevel level = path.bottom();
        BlockBuffer copy = private_node(level.block);
        NodeEditor node(bytes(copy));
        uint32_t p = level.position;
        if (p > node.nkeys())
            throw error_internal(
                fmt::format("Cannot delete key left of key {} in index node with {} elements", p,
                            node.nkeys()));
        if (p != 0 && node.child(p) != child) --p;
        if (node.child(p) != child)
            throw error_internal(
                fmt::format("In index node {} - Neither left nor right pointer of "
                            "index {} pointed to the deleted leaf (block {})",
                            level.block, level.position, child));
        if (node.nkeys() > 0) {
            node.erase_child(p);
            logger.debug("delblock={}:{}", level.block, p);
            return journal_block(copy, level.block);
        }
        if (path.depth() == 1) {
            node.set_ptr0(0);
            return journal_block(copy, level.block);
        }
        free_block(level.block);
        child = level.block;
    }
}

/// Joins the neighbours of a leaf that is going.
void IndexTree::unlink_leaf(const LeafView& leaf) {
    if (leaf.left() != 0) link(leaf.left(), side_t::right, leaf.right());
    if (leaf.right() != 0) link(leaf.right(), side_t::left, leaf.left());
}

/// Sets the link of leaf `block` on `side`; `fubar_message` when it is no leaf.
void IndexTree::link(uint32_t block, side_t side, uint32_t to, const char* fubar_message) {
    BlockBuffer copy = private_leaf(block, fubar_message);
    LeafEditor leaf(bytes(copy));
    if (side == side_t::left)
        leaf.set_left(to);
    else
        leaf.set_right(to);
    journal_block(copy, block);
}

}  // namespace mdb::detail
