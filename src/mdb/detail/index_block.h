// One block of an index, seen as a leaf or as a node: reading, searching and changing the entries
// within the block. Nothing here knows of other blocks, marks or the journal.
//
// Views read, editors also write. Both are two words wide and are passed by value; they live as
// long as the bytes that they look at. Keys are handled as one 64-bit number, whose order is that
// of NodeIds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "mdb/block_layout.h"
#include "mdb/index_layout.h"
#include "util/byte_order.h"
#include "util/node_id.h"

namespace mdb::detail {

using IndexKey = uint64_t;

constexpr IndexKey to_key(const NodeId& id) {
    return static_cast<uint64_t>(id.first) << 32 | id.second;
}
constexpr NodeId to_node_id(IndexKey key) {
    return {static_cast<uint32_t>(key >> 32), static_cast<uint32_t>(key)};
}

/// Where an exact search ended: at an entry with the key, or at the place where it would be.
struct Found {
    uint32_t position = 0;
    bool exact = false;
};

/// Binary searches over `count` keys that lie `stride` bytes apart from `keys` on. With no keys
/// they throw error_internal "Binary search attempted on empty node"; when the keys around the
/// result contradict it, error_internal "Binary search invariant broken". Position of the first key
/// that is not below `key`.
uint32_t first_not_below(const std::byte* keys, uint32_t stride, uint32_t count, IndexKey key);
/// Position of the first key above `key`.
uint32_t first_above(const std::byte* keys, uint32_t stride, uint32_t count, IndexKey key);

class LeafView {
  public:
    explicit LeafView(std::span<const std::byte> block)
        : data_(block.data()), size_(static_cast<uint32_t>(block.size())) {}

    [[nodiscard]] bool has_magic() const {
        return util::load_be32(data_ + leaf_layout::magic) == leaf_layout::kMagic;
    }
    [[nodiscard]] uint32_t left() const { return util::load_be32(data_ + leaf_layout::left); }
    [[nodiscard]] uint32_t right() const { return util::load_be32(data_ + leaf_layout::right); }
    [[nodiscard]] uint32_t nkeys() const { return util::load_be32(data_ + leaf_layout::nkeys); }
    [[nodiscard]] std::span<const std::byte> bytes() const { return {data_, size_}; }
    [[nodiscard]] uint32_t capacity() const { return leaf_capacity(size_); }
    [[nodiscard]] bool full() const { return nkeys() >= capacity(); }
    [[nodiscard]] IndexKey key(uint32_t i) const {
        return util::load_be64(entry(i) + leaf_layout::key);
    }
    [[nodiscard]] block_handle_t value(uint32_t i) const {
        const std::byte* at = entry(i) + leaf_layout::value;
        return {util::load_be32(at), util::load_be32(at + sizeof(uint32_t))};
    }

    /// First entry with a key not below `key`; 0 and not exact in an empty leaf.
    [[nodiscard]] Found find(IndexKey key) const;
    /// First entry with a key above `key`; 0 in an empty leaf.
    [[nodiscard]] uint32_t upper_bound(IndexKey key) const;

  protected:
    [[nodiscard]] const std::byte* entry(uint32_t i) const {
        return data_ + leaf_layout::entries + size_t{leaf_layout::kEntrySize} * i;
    }
    const std::byte* data_;
    uint32_t size_;
};

class LeafEditor : public LeafView {
  public:
    explicit LeafEditor(std::span<std::byte> block) : LeafView(block), out_(block.data()) {}

    /// Makes the block an empty leaf without neighbours.
    void clear() {
        std::memset(out_, 0, size_);
        util::store_be32(out_ + leaf_layout::magic, leaf_layout::kMagic);
    }
    void set_left(uint32_t block) { util::store_be32(out_ + leaf_layout::left, block); }
    void set_right(uint32_t block) { util::store_be32(out_ + leaf_layout::right, block); }
    void set_value(uint32_t i, block_handle_t value);
    /// Puts an entry at position `i`, at most nkeys(); the leaf is not full.
    void insert(uint32_t i, IndexKey key, block_handle_t value);
    /// Takes the entry at `i` out; `i` is below nkeys().
    void erase(uint32_t i);
    /// Moves the entries from `from` on to `other`, an empty leaf.
    void move_tail(uint32_t from, LeafEditor& other);

  private:
    void set_nkeys(uint32_t n) { util::store_be32(out_ + leaf_layout::nkeys, n); }
    std::byte* entry(uint32_t i) {
        return out_ + leaf_layout::entries + size_t{leaf_layout::kEntrySize} * i;
    }
    std::byte* out_;
};

class NodeView {
  public:
    explicit NodeView(std::span<const std::byte> block)
        : data_(block.data()), size_(static_cast<uint32_t>(block.size())) {}

    [[nodiscard]] bool has_magic() const {
        return util::load_be32(data_ + node_layout::magic) == node_layout::kMagic;
    }
    [[nodiscard]] uint32_t nkeys() const { return util::load_be32(data_ + node_layout::nkeys); }
    [[nodiscard]] std::span<const std::byte> bytes() const { return {data_, size_}; }
    [[nodiscard]] uint32_t capacity() const { return node_capacity(size_); }
    [[nodiscard]] bool full() const { return nkeys() >= capacity(); }
    [[nodiscard]] IndexKey key(uint32_t i) const {
        return util::load_be64(entry(i) + node_layout::key);
    }
    /// Block of child `p`, from 0 to nkeys(); 0 when there is none.
    [[nodiscard]] uint32_t child(uint32_t p) const {
        return util::load_be32(p == 0 ? data_ + node_layout::ptr0
                                      : entry(p - 1) + node_layout::rptr);
    }
    /// True in the root of an index whose building has not come to its end.
    [[nodiscard]] bool being_built() const {
        return util::load_be32(data_ + node_layout::being_built(size_)) == node_layout::kBeingBuilt;
    }
    /// True when no leaf can be reached from here.
    [[nodiscard]] bool childless() const { return nkeys() == 0 && child(0) == 0; }

    /// Number of keys below `key`: the child in which its first occurrence may lie.
    [[nodiscard]] uint32_t lower_bound(IndexKey key) const;
    /// Number of keys not above `key`: the child for searches in unique trees and for insertions.
    [[nodiscard]] uint32_t upper_bound(IndexKey key) const;

  protected:
    [[nodiscard]] const std::byte* entry(uint32_t i) const {
        return data_ + node_layout::entries + size_t{node_layout::kEntrySize} * i;
    }
    const std::byte* data_;
    uint32_t size_;
};

class NodeEditor : public NodeView {
  public:
    explicit NodeEditor(std::span<std::byte> block) : NodeView(block), out_(block.data()) {}

    /// Makes the block a node without keys and children.
    void clear() {
        std::memset(out_, 0, size_);
        util::store_be32(out_ + node_layout::magic, node_layout::kMagic);
    }
    void set_being_built(bool value) {
        util::store_be32(out_ + node_layout::being_built(size_),
                         value ? node_layout::kBeingBuilt : 0);
    }
    void set_ptr0(uint32_t block) { util::store_be32(out_ + node_layout::ptr0, block); }
    void set_key(uint32_t i, IndexKey key) { util::store_be64(entry(i) + node_layout::key, key); }
    /// Puts `key` at position `p`, at most nkeys(), with `rptr` as the child right of it; the node
    /// is not full.
    void insert(uint32_t p, IndexKey key, uint32_t rptr);
    /// Takes out child `p` with the key left of it, or with the first key when `p` is 0; nkeys() is
    /// not 0.
    void erase_child(uint32_t p);
    /// Moves the keys behind `h` and their children to `other`, an empty node; the child right of
    /// key `h` becomes other's ptr0. Key `h` goes out of the node and is returned.
    IndexKey split(uint32_t h, NodeEditor& other);
    /// Takes over ptr0 and the keys below `h` of `from`, with their children; this node is empty.
    void copy_head(const NodeEditor& from, uint32_t h);
    /// Makes this node one with a single key between two children.
    void become_fork(uint32_t left, IndexKey key, uint32_t right);

  private:
    void set_nkeys(uint32_t n) { util::store_be32(out_ + node_layout::nkeys, n); }
    std::byte* entry(uint32_t i) {
        return out_ + node_layout::entries + size_t{node_layout::kEntrySize} * i;
    }
    std::byte* out_;
};

}  // namespace mdb::detail
