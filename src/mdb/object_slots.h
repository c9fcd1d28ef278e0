// Slot arithmetic inside one object block, over plain bytes: walking the slots, cutting an object
// out of a placeholder, giving a slot back. It changes only the bytes that it is given and says
// which slot word has to be journalled; blocks, marks and journal are the business of the object
// store and the allocator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "mdb/dobj.h"
#include "mdb/object_layout.h"
#include "util/byte_order.h"

namespace mdb {

/// One slot of an object block, as its word says.
struct Slot {
    uint32_t offset = 0;
    uint32_t length = 0;
    bool placeholder = false;

    [[nodiscard]] uint32_t end() const { return offset + length; }
};

/// The slot at `offset`, which must leave room for a slot word in `block`. A length of 0 means
/// corruption; so does one that leaves the block. Neither is checked here.
inline Slot slot_at(std::span<const std::byte> block, uint32_t offset) {
    const uint32_t word = util::load_be32(&block[offset + slot_layout::word]);
    return {offset, word & ~slot_layout::kPlaceholderBit,
            (word & slot_layout::kPlaceholderBit) != 0};
}

/// Writes the word of a slot.
inline void set_slot(std::span<std::byte> block, const Slot& slot) {
    const uint32_t bit = slot.placeholder ? slot_layout::kPlaceholderBit : 0;
    util::store_be32(&block[slot.offset + slot_layout::word], slot.length | bit);
}

/// True when `slot` can be the word of a slot at its place in a block of `block_size` bytes.
inline bool slot_fits(const Slot& slot, size_t block_size) {
    return slot.length >= slot_layout::kSmallestWord && slot.offset <= block_size &&
           slot.length <= block_size - slot.offset;
}

/// The slot of a loaded object, with its word.
inline std::span<const std::byte> object_slot(const dobj& object) {
    const std::byte* word = object.data + object.slot_offset();
    return {word, util::load_be32(word) & ~slot_layout::kPlaceholderBit};
}

/// What splitting did: where the object's slot is now, and whether the placeholder before it
/// changed.
struct SplitResult {
    Slot slot;
    bool cut = false;
};

/// Cuts a slot of `size` bytes from the end of the placeholder at `offset`. A placeholder of
/// exactly this size is left untouched, its bit too. Throws error_internal when the placeholder is
/// too small or `size` is odd.
SplitResult split_placeholder(std::span<std::byte> block, uint32_t offset, uint32_t size);

/// What freeing did: the offset of the one slot word that changed, and the offset of a slot word of
/// length 0 when the walk to the slot met one.
struct FreeResult {
    uint32_t changed_offset = 0;
    std::optional<uint32_t> damaged_offset;
};

/// Turns the slot at `offset` into a placeholder and joins it with the placeholders on both sides
/// of it.
FreeResult free_slot_in_block(std::span<std::byte> block, uint32_t offset);

}  // namespace mdb
