// How blocks of the database file are numbered, addressed and marked. What stands inside an object
// block is told in object_layout.h, inside an index block in index_layout.h, inside block 0 in
// header_layout.h.
//
// Block N starts at byte N * block size. The allocation map holds one byte per block, its mark:
// byte B of map block m (counted from map start) describes block m * block size + B.
#pragma once

#include <compare>
#include <cstdint>

namespace mdb {

/// Offset of the null handle.
inline constexpr uint32_t kNullOffset = 0xFFFFFFFF;

/// Address of an object: block number and byte offset of its slot in the block.
struct block_handle_t {
    uint32_t block = 0;
    uint32_t offset = kNullOffset;

    [[nodiscard]] constexpr bool is_null() const noexcept { return offset == kNullOffset; }
    friend constexpr auto operator<=>(const block_handle_t&,
                                      const block_handle_t&) noexcept = default;
};

/// What a block is used for, as its byte in the allocation map says.
enum class mark_t : uint8_t {
    empty = 0,           ///< holds nothing
    used = 1,            ///< object block with at least a quarter of its bytes free
    full = 2,            ///< object block with less than a quarter free
    none = 3,            ///< not a valid mark
    root_index = 4,      ///< root node of an index
    non_root_index = 5,  ///< inner node of an index
    leaf = 6,            ///< leaf of an index
    lob = 7,             ///< block of a large object
};
inline constexpr uint8_t kGreatestMark = 7;
/// True for a byte of the map that a block can have.
constexpr bool is_mark(uint8_t byte) {
    return byte <= kGreatestMark && byte != static_cast<uint8_t>(mark_t::none);
}

/// Blocks below this size could not hold the header.
inline constexpr uint32_t kSmallestBlockSize = 1024;

/// Free bytes from which an object block of `block_size` bytes counts as used, not full.
constexpr uint32_t free_threshold(uint32_t block_size) {
    return static_cast<uint32_t>(uint64_t{block_size} * 25 / 100);
}

}  // namespace mdb
