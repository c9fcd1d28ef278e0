// The layout of the shared pool and of a block in it. Integers are in the byte order of the host;
// all offsets count from the start of the pool.
//
// Pool
//   offset  size  field
//        0     4  magic     kPoolMagic
//        4  4092  unused    zero
//     4096   ...  areas     one write area per sibling, placed first fit by the parent
//
// Write area: blocks without gaps from its start to its end; start and size are multiples of 8.
//
// Block, called block_header with its payload
//   offset  size  field
//        0     8  prev      offset of the preceding block of the area, 0 for the first; the two
//        lowest bits are flags:
//                           1 used, 2 eight more spare bytes follow the rounded payload
//        8     8  length    payload bytes
//       16  length payload  then filling up to a multiple of 8 (plus 8 with flag 2)
//
// Invariants, by number in WriteArea::check_area() and in the tests:
//   A1  headers stand at multiples of 8, and each next offset is beyond its block and at most the
//   area's end A2  prev is the offset of the block before, 0 for the first A3  a free block has no
//   flags and its length reaches exactly to the next block A4  two neighbours are never both free
//   A5  the used blocks are the unacknowledged ones, no more and no less, and none has length 0
//   A6  the search offset is a free block with room for at least one byte; it is "none" only if
//   there is no such block
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace io::pool_layout {

inline constexpr uint32_t kPoolMagic = 0x71178228;
inline constexpr size_t kMagicOffset = 0;
inline constexpr uint32_t kFirstAreaOffset = 4096;

inline constexpr size_t kPrev = 0, kLength = 8, kPayload = 16;
inline constexpr uint64_t kHeaderBytes = kPayload;
inline constexpr uint64_t kFlagUsed = 1, kFlagSpare = 2, kFlagMask = 3;
static_assert(kLength == kPrev + sizeof(uint64_t) && kPayload == kLength + sizeof(uint64_t),
              "the drawing above and these offsets are one contract");
static_assert(kFirstAreaOffset % 8 == 0);

/// A decoded header.
struct block_header {
    uint64_t prev_offset = 0;
    uint64_t flags = 0;
    uint64_t length = 0;

    [[nodiscard]] bool used() const { return (flags & kFlagUsed) != 0; }
    /// Where the block behind this one starts, if this one stands at `offset`.
    [[nodiscard]] uint64_t next_offset(uint64_t offset) const {
        return ((offset + length + 23) & ~uint64_t{7}) + ((flags & kFlagSpare) != 0 ? 8 : 0);
    }
};

[[nodiscard]] inline block_header load_header(const uint8_t* pool, uint64_t offset) {
    uint64_t prev_and_flags = 0;
    block_header header;
    std::memcpy(&prev_and_flags, pool + offset + kPrev, sizeof prev_and_flags);
    std::memcpy(&header.length, pool + offset + kLength, sizeof header.length);
    header.prev_offset = prev_and_flags & ~kFlagMask;
    header.flags = prev_and_flags & kFlagMask;
    return header;
}

/// Only the length, which is what a reader may rely on while the block is lent to it.
[[nodiscard]] inline uint64_t load_length(const uint8_t* pool, uint64_t offset) {
    uint64_t length = 0;
    std::memcpy(&length, pool + offset + kLength, sizeof length);
    return length;
}

/// A prev_offset that is no multiple of 4 is a fatal assertion.
void store_header(uint8_t* pool, uint64_t offset, const block_header& header);
/// Changes the prev_offset alone; the block's flags and length stay. Allowed while the block is
/// lent.
void store_prev_offset(uint8_t* pool, uint64_t offset, uint64_t prev_offset);

}  // namespace io::pool_layout
