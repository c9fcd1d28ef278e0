#include "mdb/object_slots.h"

#include "mdb/errors.h"

namespace mdb {

SplitResult split_placeholder(std::span<std::byte> block, uint32_t offset, uint32_t size) {
    Slot placeholder = slot_at(block, offset);
    if (placeholder.length == size) return {placeholder, false};
    if (placeholder.length < size) throw error_internal("Attempted to split undersized object");
    if (size % 2 != 0) throw error_internal("Attempted to allocate an odd-sized object");
    // The object is cut from the end, so that the placeholder stays where later searches find it.
    placeholder.length -= size;
    placeholder.placeholder = true;
    set_slot(block, placeholder);
    const Slot object{placeholder.end(), size, false};
    set_slot(block, object);
    return {object, true};
}

FreeResult free_slot_in_block(std::span<std::byte> block, uint32_t offset) {
    FreeResult result;
    Slot freed = slot_at(block, offset);
    freed.placeholder = true;
    if (freed.end() + sizeof(uint32_t) <= block.size()) {
        const Slot next = slot_at(block, freed.end());
        if (next.placeholder && slot_fits(next, block.size())) freed.length += next.length;
    }
    std::optional<Slot> last_placeholder;
    for (uint32_t at = 0; at < offset;) {
        const Slot slot = slot_at(block, at);
        if (slot.length < slot_layout::kSmallestWord) {
            result.damaged_offset = at;
            break;
        }
        if (slot.placeholder) last_placeholder = slot;
        if (slot.length > offset - at) break;
        at = slot.end();
    }
    if (last_placeholder && last_placeholder->end() == offset) {
        last_placeholder->length += freed.length;
        freed = *last_placeholder;
    }
    set_slot(block, freed);
    result.changed_offset = freed.offset;
    return result;
}

}  // namespace mdb
