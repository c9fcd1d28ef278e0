#include "mdb/object_scan.h"

#include "mdb/database.h"
#include "mdb/object_slots.h"

namespace mdb {

namespace {

void scan_block(Database& database, uint32_t block, const std::function<void(const dobj&)>& visit) {
    const std::span<const std::byte> bytes(database.cache().cached_block(block),
                                           database.block_size());
    for (uint32_t at = 0; at + sizeof(uint32_t) <= bytes.size();) {
        const Slot slot = slot_at(bytes, at);
        if (!slot_fits(slot, bytes.size())) return;
        if (!slot.placeholder && slot.length >= slot_layout::records)
            visit(dobj({block, slot.offset}, bytes.data()));
        at = slot.end();
    }
}

}  // namespace

void scan_objects(Database& database, const std::function<void(const dobj&)>& visit) {
    Allocator& allocator = database.allocator();
    const uint64_t end = uint64_t{allocator.map_blocks()} * database.block_size();
    for (uint64_t block = allocator.first_data_block();
         block < end && database.store().block_in_file(static_cast<uint32_t>(block)); ++block) {
        const mark_t mark = allocator.query_mark(static_cast<uint32_t>(block));
        if (mark == mark_t::used || mark == mark_t::full)
            scan_block(database, static_cast<uint32_t>(block), visit);
    }
}

}  // namespace mdb
