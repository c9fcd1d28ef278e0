// Writes pending updates to the database file in file order: each byte once, however often it was
// updated, and runs of bytes that meet as one write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mdb/detail/block_updates.h"

namespace mdb {
class BackingStore;
class BlockCache;
}  // namespace mdb

namespace mdb::detail {

/// What a write-out may do.
struct WriteOutMode {
    bool may_extend = false;    ///< make the file longer
    bool sync_follows = false;  ///< let the disk begin at once, since a sync will wait for it
};

class FileWriter {
  public:
    explicit FileWriter(BackingStore& store) : store_(store) {}

    /// Writes all of `updates`, whose sources are positions in `source`. `cache`, if not null,
    /// holds the blocks as they shall be in the file. Throws what byte_write() throws.
    void write(const BlockUpdates& updates, const std::byte* source, const BlockCache* cache,
               WriteOutMode mode);

  private:
    struct Run {
        uint32_t start;
        uint32_t end;
    };
    void write_block(uint32_t block, const std::byte* source, const BlockCache* cache);
    void merge_runs();
    void emit(uint64_t offset, const std::byte* bytes, size_t length);
    void write_staged();
    void start_writeback();

    BackingStore& store_;
    WriteOutMode mode_;
    /// From here on the system has not been told to begin.
    uint64_t writeback_begun_ = 0;
    std::vector<uint32_t> blocks_;
    std::vector<BlockUpdates::Piece> pieces_;
    std::vector<Run> runs_;
    std::vector<std::byte> image_;
    /// Bytes not yet written, and where they go.
    std::vector<std::byte> staged_;
    uint64_t staged_offset_ = 0;
};

}  // namespace mdb::detail
