#include "io/pool_layout.h"

#include "error/exception.h"

namespace io::pool_layout {

void store_header(uint8_t* pool, uint64_t offset, const block_header& header) {
    error::check(header.prev_offset % 4 == 0, "Misaligned prev_offset: {}", header.prev_offset);
    const uint64_t prev_and_flags = header.prev_offset | header.flags;
    std::memcpy(pool + offset + kPrev, &prev_and_flags, sizeof prev_and_flags);
    std::memcpy(pool + offset + kLength, &header.length, sizeof header.length);
}

void store_prev_offset(uint8_t* pool, uint64_t offset, uint64_t prev_offset) {
    error::check(prev_offset % 4 == 0, "prev_offset misaligned: {}", prev_offset);
    const uint64_t prev_and_flags = prev_offset | load_header(pool, offset).flags;
    std::memcpy(pool + offset + kPrev, &prev_and_flags, sizeof prev_and_flags);
}

}  // namespace io::pool_layout
