#include "mdb/detail/index_block.h"

#include "mdb/errors.h"

namespace mdb::detail {

namespace {

/// Position of the first key for which `before(its key, key)` is false; the keys for which it is
/// true come first.
template <class Before>
uint32_t partition_point(const std::byte* keys, uint32_t stride, uint32_t count, IndexKey key,
                         Before before) {
    if (count == 0) throw error_internal("Binary search attempted on empty node");
    const auto at = [&](uint32_t i) { return util::load_be64(keys + size_t{stride} * i); };
    uint32_t low = 0;
    uint32_t high = count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        if (before(at(middle), key))
            low = middle + 1;
        else
            high = middle;
    }
    // In a block whose keys do not ascend the search ends anywhere.
    if ((low > 0 && !before(at(low - 1), key)) || (low < count && before(at(low), key)))
        throw error_internal("Binary search invariant broken");
    return low;
}

}  // namespace

uint32_t first_not_below(const std::byte* keys, uint32_t stride, uint32_t count, IndexKey key) {
    return partition_point(keys, stride, count, key, [](IndexKey a, IndexKey b) { return a < b; });
}

uint32_t first_above(const std::byte* keys, uint32_t stride, uint32_t count, IndexKey key) {
    return partition_point(keys, stride, count, key, [](IndexKey a, IndexKey b) { return a <= b; });
}

Found LeafView::find(IndexKey wanted) const {
    if (nkeys() == 0) return {0, false};
    const uint32_t position =
        first_not_below(entry(0) + leaf_layout::key, leaf_layout::kEntrySize, nkeys(), wanted);
    return {position, position < nkeys() && key(position) == wanted};
}

uint32_t LeafView::upper_bound(IndexKey wanted) const {
    if (nkeys() == 0) return 0;
    return first_above(entry(0) + leaf_layout::key, leaf_layout::kEntrySize, nkeys(), wanted);
}

void LeafEditor::set_value(uint32_t i, block_handle_t value) {
    std::byte* at = entry(i) + leaf_layout::value;
    util::store_be32(at, value.block);
    util::store_be32(at + sizeof(uint32_t), value.offset);
}

void LeafEditor::insert(uint32_t i, IndexKey key, block_handle_t value) {
    const uint32_t n = nkeys();
    std::memmove(entry(i + 1), entry(i), size_t{leaf_layout::kEntrySize} * (n - i));
    util::store_be64(entry(i) + leaf_layout::key, key);
    set_value(i, value);
    set_nkeys(n + 1);
}

void LeafEditor::erase(uint32_t i) {
    const uint32_t n = nkeys() - 1;
    std::memmove(entry(i), entry(i + 1), size_t{leaf_layout::kEntrySize} * (n - i));
    std::memset(entry(n), 0, leaf_layout::kEntrySize);
    set_nkeys(n);
}

void LeafEditor::move_tail(uint32_t from, LeafEditor& other) {
    const uint32_t moved = nkeys() - from;
    const size_t bytes = size_t{leaf_layout::kEntrySize} * moved;
    std::memcpy(other.entry(0), entry(from), bytes);
    other.set_nkeys(moved);
    std::memset(entry(from), 0, bytes);
    set_nkeys(from);
}

uint32_t NodeView::lower_bound(IndexKey wanted) const {
    if (nkeys() == 0) return 0;
    return first_not_below(entry(0) + node_layout::key, node_layout::kEntrySize, nkeys(), wanted);
}

uint32_t NodeView::upper_bound(IndexKey wanted) const {
    if (nkeys() == 0) return 0;
    return first_above(entry(0) + node_layout::key, node_layout::kEntrySize, nkeys(), wanted);
}

void NodeEditor::insert(uint32_t p, IndexKey key, uint32_t rptr) {
    const uint32_t n = nkeys();
    std::memmove(entry(p + 1), entry(p), size_t{node_layout::kEntrySize} * (n - p));
    util::store_be64(entry(p) + node_layout::key, key);
    util::store_be32(entry(p) + node_layout::rptr, rptr);
    set_nkeys(n + 1);
}

void NodeEditor::erase_child(uint32_t p) {
    const uint32_t n = nkeys() - 1;
    if (p == 0) set_ptr0(child(1));
    const uint32_t i = p == 0 ? 0 : p - 1;
    std::memmove(entry(i), entry(i + 1), size_t{node_layout::kEntrySize} * (n - i));
    std::memset(entry(n), 0, node_layout::kEntrySize);
    set_nkeys(n);
}

IndexKey NodeEditor::split(uint32_t h, NodeEditor& other) {
    const IndexKey middle = key(h);
    const uint32_t moved = nkeys() - h - 1;
    other.set_ptr0(child(h + 1));
    std::memcpy(other.entry(0), entry(h + 1), size_t{node_layout::kEntrySize} * moved);
    other.set_nkeys(moved);
    std::memset(entry(h), 0, size_t{node_layout::kEntrySize} * (moved + 1));
    set_nkeys(h);
    return middle;
}

void NodeEditor::copy_head(const NodeEditor& from, uint32_t h) {
    set_ptr0(from.child(0));
    std::memcpy(entry(0), from.NodeView::entry(0), size_t{node_layout::kEntrySize} * h);
    set_nkeys(h);
}

void NodeEditor::become_fork(uint32_t left, IndexKey key, uint32_t right) {
    const bool unfinished = being_built();
    clear();
    set_being_built(unfinished);
    set_ptr0(left);
    insert(0, key, right);
}

}  // namespace mdb::detail
