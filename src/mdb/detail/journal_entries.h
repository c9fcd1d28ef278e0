// Walks over entries of a journal that lie in memory, be it the mapped file or a transaction not
// yet written. Nothing here trusts a length: a walk never leaves the bytes it was given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "mdb/journal_layout.h"
#include "util/byte_order.h"

namespace mdb::detail {

/// The word at `position`, or 0, which begins no entry, when the bytes end before it does.
inline uint32_t entry_word(std::span<const std::byte> bytes, uint64_t position) {
    if (position > bytes.size() || bytes.size() - position < sizeof(uint32_t)) return 0;
    return util::load_be32(bytes.data() + position);
}

/// One update entry.
struct UpdateEntry {
    uint64_t file_offset = 0;
    /// Position of its data, and how long they are.
    uint32_t data = 0;
    uint32_t length = 0;
    /// Position behind the entry.
    uint32_t end = 0;
};

/// Reads the update at `position` if one stands there and lies in `bytes` with all its data and
/// fill.
inline bool read_update(std::span<const std::byte> bytes, uint32_t position, UpdateEntry& entry) {
    namespace layout = journal_layout;
    if (entry_word(bytes, position) != layout::kUpdate) return false;
    if (bytes.size() - position < layout::update_data) return false;
    const std::byte* at = bytes.data() + position;
    entry.length = util::load_be32(at + layout::update_length);
    if (layout::update_size(entry.length) > bytes.size() - position) return false;
    entry.file_offset = util::load_be64(at + layout::update_offset);
    entry.data = position + layout::update_data;
    entry.end = position + static_cast<uint32_t>(layout::update_size(entry.length));
    return true;
}

}  // namespace mdb::detail
