// The block cache: committed images of blocks, the most recently used kept. It is no write-back
// cache: nothing is ever written from here to the file. A commit reaches it through apply_update(),
// and a block that is read while committed changes are not yet in the file gets them from the
// journal, so an image always shows exactly the state after the last commit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

#include "mdb/dobj.h"
#include "util/open_hash_table.h"

namespace mdb {

class BackingStore;
class Journal;

class BlockCache {
  public:
    /// Holds up to `limit` blocks, at least 1. All references must outlive the cache.
    BlockCache(BackingStore& store, Journal& journal, BlockPool& pool, uint32_t limit);
    BlockCache(const BlockCache&) = delete;
    BlockCache& operator=(const BlockCache&) = delete;

    /// The committed image of `block`. It must not be changed, and lives until the next block is
    /// asked for: there is no pinning. Costs a read of the file when the block isn't cached.
    /// error_range, error_io.
    [[nodiscard]] const std::byte* cached_block(uint32_t block);
    /// Copies the committed image of `block` to `buffer`, one block in size.
    void copy_cached_block(std::byte* buffer, uint32_t block);
    /// A copy of `block` with the open transaction's changes laid over it: what the transaction
    /// sees.
    [[nodiscard]] BlockBuffer private_block(uint32_t block);

    /// Copies what a committed update changed into the image of `block`, if it is cached. `data` is
    /// the update's bytes for `file_offset`. Doesn't count as a use of the block.
    void apply_update(uint32_t block, std::span<const std::byte> data, uint64_t file_offset);
    /// The committed image of `block` if it is cached, else null. Doesn't count as a use of the
    /// block.
    [[nodiscard]] const std::byte* peek(uint32_t block) const;

    /// Drops the image of `block`, whose bytes in the file have been, or are being, written past
    /// the journal.
    void forget(uint32_t block);

    /// Memory held, in KiB.
    [[nodiscard]] uint64_t cache_size_kib() const;

  private:
    struct block_cache_entry {
        uint32_t block = 0;
        /// False after a failed read: the bytes are no block's.
        bool in_use = false;
        BlockBuffer bytes;
        block_cache_entry* newer = nullptr;
        block_cache_entry* older = nullptr;
    };

    [[nodiscard]] block_cache_entry& take_entry();
    void read_block(block_cache_entry& entry, uint32_t block);
    void unlink(block_cache_entry& entry);
    void push_front(block_cache_entry& entry);
    void push_back(block_cache_entry& entry);

    BackingStore& store_;
    Journal& journal_;
    BlockPool& pool_;
    uint32_t block_cache_limit_;
    /// In rows, as a use of one writes to its neighbours in the list.
    std::deque<block_cache_entry> entries_;
    block_cache_entry* newest_ = nullptr;
    block_cache_entry* oldest_ = nullptr;
    open_hash_table<uint32_t, block_cache_entry*, WordHash> table_;
};

/// Copies the part of an update that lies in a buffer. The buffer holds `length` bytes from file
/// offset `buffer_offset` on, the update `data` from `update_offset` on. Throws error_internal when
/// they don't overlap, or when a start lies beyond 32 bits.
void copy_overlap(std::byte* buffer, size_t length, uint64_t buffer_offset,
                  std::span<const std::byte> data, uint64_t update_offset);

}  // namespace mdb
