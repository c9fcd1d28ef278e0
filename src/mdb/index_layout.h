// The layout of the blocks of an index, a B+ tree from keys to places of objects. Searches,
// changes, verifier and tests take their offsets from here. Nothing here touches memory.
//
// A key is a NodeId: two 32-bit words, compared first word first. A value is a block_handle_t:
// block and offset. All numbers are big-endian.
//
//   node      width  field                         (mark 4 for a root, 5 for any other)
//   0         4      magic "RINT"
//   4         4      nkeys
//   8         4      ptr0: block of the child left of key 0, 0 = none
//   12+12i    8      key i
//   20+12i    4      rptr i: block of the child right of key i
//   size-4    4      of a root: "BLDG" as long as the index is being built, see N9; else 0
//
//   leaf      width  field                         (mark 6)
//   0         4      magic "LEAF"
//   4         4      left: block of the left neighbour, 0 = none
//   8         4      right: block of the right neighbour, 0 = none
//   12        4      nkeys
//   16+16i    8      key i
//   24+16i    8      value i
//
// Child p of a node is ptr0 for p = 0 and rptr p-1 otherwise. The root is always a node and its
// block never changes; an index without entries is a root with nkeys 0 and ptr0 0, or one leaf
// without entries below it.
//
// A leaf with the one entry 1.4294960001 -> block 9, offset 64, and no neighbours:
//   00: 4C 45 41 46  00 00 00 00  00 00 00 00  00 00 00 01
//   10: 00 00 00 01  FF FF E3 81  00 00 00 09  00 00 00 40
//
// Invariants, by number in the verifier (verify.h) and in the tests:
//   N1 every block of the tree has its magic, the mark of its kind, and is reached once
//
//   N2 nkeys is at most the capacity; a node below the root has children in all of its nkeys + 1
//      places
//
//   N3 keys ascend within a block: strictly in the leaves of a unique tree, otherwise equal ones
//      may follow each other
//
//   N4 keys of a child lie in the interval of its parent: not below the separator to its left;
//      below the separator to its right in a unique tree, not above it in the others
//
//   N5 all leaves have the same depth
//   N6 the left and right links join the leaves in key order
//   N7 a leaf without entries is the only leaf
//   N8 no two entries of an index have the same key and value
//   N9 an index whose root says that it is being built may lack entries, or hold some of the past;
//      nobody reads it, and the next start goes on with the building
#pragma once

#include <cstddef>
#include <cstdint>

namespace mdb {

namespace node_layout {
inline constexpr uint32_t kMagic = 0x52494E54;  // "RINT"
inline constexpr uint32_t magic = 0;
inline constexpr uint32_t nkeys = 4;
inline constexpr uint32_t ptr0 = 8;
inline constexpr uint32_t entries = 12;
/// Within an entry.
inline constexpr uint32_t key = 0;
inline constexpr uint32_t rptr = 8;
inline constexpr uint32_t kEntrySize = 12;
static_assert(entries == ptr0 + sizeof(uint32_t) && kEntrySize == rptr + sizeof(uint32_t),
              "the table above and these offsets are one contract");
/// What the last word of a root holds while its index is being built.
inline constexpr uint32_t kBeingBuilt = 0x424C4447;  // "BLDG"
constexpr uint32_t being_built(uint32_t block_size) {
    return block_size - static_cast<uint32_t>(sizeof(uint32_t));
}
}  // namespace node_layout

namespace leaf_layout {
inline constexpr uint32_t kMagic = 0x4C454146;  // "LEAF"
inline constexpr uint32_t magic = 0;
inline constexpr uint32_t left = 4;
inline constexpr uint32_t right = 8;
inline constexpr uint32_t nkeys = 12;
inline constexpr uint32_t entries = 16;
/// Within an entry.
inline constexpr uint32_t key = 0;
inline constexpr uint32_t value = 8;
inline constexpr uint32_t kEntrySize = 16;
static_assert(entries == nkeys + sizeof(uint32_t) && kEntrySize == value + 2 * sizeof(uint32_t),
              "the table above and these offsets are one contract");
}  // namespace leaf_layout

/// Greatest number of keys of a node in a block of `block_size` bytes.
constexpr uint32_t node_capacity(uint32_t block_size) {
    return (block_size - node_layout::entries) / node_layout::kEntrySize;
}

/// Greatest number of entries of a leaf in a block of `block_size` bytes.
constexpr uint32_t leaf_capacity(uint32_t block_size) {
    return (block_size - leaf_layout::entries) / leaf_layout::kEntrySize;
}
static_assert(node_capacity(1024) == 84 && leaf_capacity(1024) == 63);
static_assert(node_capacity(4096) == 340 && leaf_capacity(4096) == 255);
/// Keys never reach the last word of a node: a power of two is no multiple of the entries' size.
static_assert(node_layout::entries + node_capacity(1024) * node_layout::kEntrySize <=
                  node_layout::being_built(1024) &&
              node_layout::entries + node_capacity(2048) * node_layout::kEntrySize <=
                  node_layout::being_built(2048));

}  // namespace mdb
