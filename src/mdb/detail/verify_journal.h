// The check of a journal as it lies on the disk. It reads the log by the written rules alone, apart
// from the code that replays it, so that a fault in the one shows against the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "mdb/verify_files.h"

namespace mdb::detail {

struct JournalScan {
    JournalState state;
    /// The blocks that a replay writes to, ascending.
    std::vector<uint32_t> touched;
};

/// Follows the log of a journal for a database with `block_count` blocks. Adds faults of rule J.
[[nodiscard]] JournalScan scan_journal(std::span<const std::byte> journal, uint32_t block_size,
                                       uint64_t block_count, FaultReport& report);

}  // namespace mdb::detail
