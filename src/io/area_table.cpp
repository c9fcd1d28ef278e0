#include "io/area_table.h"

#include "error/exception.h"

namespace io {

std::optional<uint32_t> AreaTable::place(uint32_t sibling_id, uint32_t size_bytes) {
    error::check(size_bytes % 8 == 0, "Slice size for sibling id {} is not 8 byte aligned!",
                 sibling_id);
    uint64_t candidate = first_;
    for (const auto& [offset, area] : areas_) {
        if (candidate + size_bytes <= offset) break;
        candidate = uint64_t{offset} + area.size_bytes;
    }
    if (candidate + size_bytes > end_) return std::nullopt;
    const auto offset = static_cast<uint32_t>(candidate);
    error::check(
        areas_.emplace(offset, Area{size_bytes, sibling_id}).second,
        "Found shared memory area for sibling {} at offset {} of size {} but it is already in use.",
        sibling_id, offset, size_bytes);
    return offset;
}

void AreaTable::release(uint32_t offset, uint32_t sibling_id) {
    const auto found = areas_.find(offset);
    error::check(found != areas_.end() && found->second.sibling_id == sibling_id,
                 "Could not find area for sibling {}", sibling_id);
    areas_.erase(found);
}

}  // namespace io
