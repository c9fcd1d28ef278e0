// The database file as a run of bytes and blocks: bounds, growth and errors in the store's own
// words. It caches nothing and knows nothing of what the blocks mean.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/file.h"

namespace mdb {

/// Hears of every write to the file just before it is done, while the old bytes can still be read.
class WriteObserver {
  public:
    virtual ~WriteObserver() = default;
    /// `length` bytes at `offset` are about to be overwritten, or added where the file ends before
    /// them. Must not write to the store; what it throws fails the write.
    virtual void before_write(uint64_t offset, uint64_t length) = 0;
};

class BackingStore {
  public:
    /// Opens the file at `path` and takes its lock. Throws error_open when it can't be opened or
    /// when another process has it open.
    BackingStore(platform::FileSystem& files, const std::string& path);

    /// Sets the size of a block; must be a power of two. To be called once, before any block is
    /// named.
    void set_block_size(uint32_t block_size);

    /// Reads `length` bytes at `offset`. Throws error_range for a range past the end of file,
    /// error_io.
    void byte_read(void* buffer, uint64_t offset, size_t length);
    /// Writes; unless `may_extend`, throws error_range for a range past the end of file. error_io.
    void byte_write(const void* data, uint64_t offset, size_t length, bool may_extend);
    /// Whole blocks.
    void block_read(void* buffer, uint32_t block, uint32_t count);
    void block_write(const void* data, uint32_t block, uint32_t count);
    /// Lets the disk begin with what was written there, ahead of a sync. Never fails.
    void start_writeback(uint64_t offset, uint64_t length);
    /// Forces all written bytes to stable storage. Throws error_io; the store is then of no more
    /// use, as the bytes may be lost (see Journal).
    void sync_store();

    [[nodiscard]] bool block_in_file(uint32_t block) const {
        return (uint64_t{block} + 1) * block_size_ <= file_length_;
    }
    /// Grows the file with zero blocks, by a fifth of its length, if `block` lies beyond it.
    /// Afterwards the block is in the file, or error_dbnospace was thrown.
    void ensure_block(uint32_t block);

    /// True when ensure_block() has grown the file since the last sync_store().
    [[nodiscard]] bool grown() const noexcept { return grown_; }
    /// Fills a last block that the file holds only in part with zeros, as a replay may leave one.
    void complete_last_block();

    [[nodiscard]] uint64_t block_offset(uint32_t block) const {
        return uint64_t{block} << block_shift_;
    }
    [[nodiscard]] uint32_t offset_block(uint64_t offset) const {
        return static_cast<uint32_t>(offset >> block_shift_);
    }
    [[nodiscard]] uint32_t block_size() const noexcept { return block_size_; }
    /// Bytes in the file.
    [[nodiscard]] uint64_t file_length() const noexcept { return file_length_; }
    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    [[nodiscard]] platform::File& file() noexcept { return *file_; }

    /// Has `observer` hear of writes from now on; null for nobody. Zero blocks of a growing file
    /// aren't told. It must outlive its place here.
    void set_write_observer(WriteObserver* observer) noexcept { observer_ = observer; }
    [[nodiscard]] bool observed() const noexcept { return observer_ != nullptr; }

  private:
    void read(void* buffer, uint64_t offset, size_t length, const char* what);
    void write_zero_blocks(uint64_t new_length);
    void give_back_partial_block();

    WriteObserver* observer_ = nullptr;
    std::string path_;
    std::unique_ptr<platform::File> file_;
    uint64_t file_length_ = 0;
    bool grown_ = false;
    uint32_t block_size_ = 0;
    uint32_t block_shift_ = 0;
};

}  // namespace mdb
