// The layout of the blocks of a large object, a chain of whole blocks with mark 7. Writer, reader,
// verifier and tests take their offsets from here. Nothing here touches memory. All numbers are
// big-endian; the bytes behind the last one of the data have no meaning.
//
//   first block   width            field
//   0             4                magic "LOBh"
//   4             4                version, 1
//   8             4                length of the data in bytes
//   12            4                block of the next part, 0 = none
//   16            block size - 16  the first bytes of the data
//
//   further       width            field
//   0             4                magic "LOBd"
//   4             4                next block, 0 = none
//   8             block size - 8   data
//
// The three bytes 61 62 63 in one block, and the head of an object of 1009 bytes in blocks of 1024,
// which goes on in block 9 (01 bytes follow there):
//   0: 4C 4F 42 68  00 00 00 01  00 00 00 03  00 00 00 00  61 62 63
//   0: 4C 4F 42 68  00 00 00 01  00 00 03 F1  00 00 00 09  ...   9: 4C 4F 42 64  00 00 00 00  ..
//
// Invariants, by number in the verifier and in the tests:
//   B1 the chain from a first block has exactly the blocks that its length needs, see block_count()
//   B2 every block of a chain lies in the file, at or above the first data block, and has mark 7
//   B3 no block stands in two chains, nor twice in one
//   B4 no half of the journal that can still be replayed, and no update that still waits for the
//      file, touches a block of a chain
//   B5 every block with mark 7 stands in a chain
//   B6 every chain is named by one object
#pragma once

#include <cstdint>

namespace mdb::lob_layout {

inline constexpr uint32_t kFirstMagic = 0x4C4F4268;    // "LOBh"
inline constexpr uint32_t kFurtherMagic = 0x4C4F4264;  // "LOBd"
inline constexpr uint32_t kVersion = 1;

/// The first word of every block.
inline constexpr uint32_t magic = 0;

/// Within a first block.
inline constexpr uint32_t version = 4;
inline constexpr uint32_t length = 8;
inline constexpr uint32_t first_next = 12;
inline constexpr uint32_t first_data = 16;
static_assert(first_data == first_next + sizeof(uint32_t));

/// Within a further block.
inline constexpr uint32_t further_next = 4;
inline constexpr uint32_t further_data = 8;
static_assert(further_data == further_next + sizeof(uint32_t));

/// Number of blocks that `size` bytes of data take.
constexpr uint64_t block_count(uint64_t size, uint32_t block_size) {
    const uint64_t first = block_size - first_data;
    if (size <= first) return 1;
    const uint64_t further = block_size - further_data;
    return 1 + (size - first + further - 1) / further;
}
static_assert(block_count(0, 1024) == 1 && block_count(1008, 1024) == 1 &&
              block_count(1009, 1024) == 2 && block_count(1008 + 1016, 1024) == 2 &&
              block_count(1008 + 1017, 1024) == 3);

}  // namespace mdb::lob_layout
