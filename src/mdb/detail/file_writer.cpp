#include "mdb/detail/file_writer.h"

#include <algorithm>
#include <cstring>

#include "mdb/backing_store.h"
#include "mdb/block_cache.h"

namespace mdb::detail {

namespace {

constexpr size_t kGreatestWrite = 256 * 1024;
/// Bytes of the file that the disk is given at a time while the rest is still being written.
constexpr uint64_t kWritebackStep = uint64_t{2} << 20;

}  // namespace

void FileWriter::write(const BlockUpdates& updates, const std::byte* source,
                       const BlockCache* cache, WriteOutMode mode) {
    mode_ = mode;
    writeback_begun_ = 0;
    staged_.clear();
    blocks_.clear();
    updates.blocks(blocks_);
    for (const uint32_t block : blocks_) {
        pieces_.clear();
        updates.collect(block, pieces_);
        write_block(block, source, cache);
    }
    write_staged();
}

void FileWriter::write_block(uint32_t block, const std::byte* source, const BlockCache* cache) {
    const uint64_t base = store_.block_offset(block);
    if (pieces_.size() == 1) {
        emit(base + pieces_[0].start, source + pieces_[0].source, pieces_[0].length);
        return;
    }
    if (const std::byte* cached = cache == nullptr ? nullptr : cache->peek(block)) {
        // What no update touched is in the file already as the cache has it.
        emit(base, cached, store_.block_size());
        return;
    }
    merge_runs();
    image_.resize(store_.block_size());
    // Many small writes cost more than reading the block and writing it once.
    const bool whole = runs_.size() > 2 && store_.block_in_file(block);
    if (whole) store_.block_read(image_.data(), block, 1);
    for (const BlockUpdates::Piece& piece : pieces_)
        std::memcpy(image_.data() + piece.start, source + piece.source, piece.length);
    if (whole) runs_.assign(1, {0, store_.block_size()});
    for (const Run& run : runs_)
        emit(base + run.start, image_.data() + run.start, run.end - run.start);
}

void FileWriter::merge_runs() {
    runs_.clear();
    for (const BlockUpdates::Piece& piece : pieces_)
        runs_.push_back({piece.start, piece.start + piece.length});
    std::sort(runs_.begin(), runs_.end(), [](Run a, Run b) { return a.start < b.start; });
    size_t last = 0;
    for (size_t i = 1; i < runs_.size(); ++i) {
        if (runs_[i].start <= runs_[last].end)
            runs_[last].end = std::max(runs_[last].end, runs_[i].end);
        else
            runs_[++last] = runs_[i];
    }
    runs_.resize(last + 1);
}

void FileWriter::emit(uint64_t offset, const std::byte* bytes, size_t length) {
    if (staged_offset_ + staged_.size() != offset || staged_.size() + length > kGreatestWrite) {
        write_staged();
        staged_offset_ = offset;
    }
    staged_.insert(staged_.end(), bytes, bytes + length);
}

void FileWriter::write_staged() {
    if (staged_.empty()) return;
    store_.byte_write(staged_.data(), staged_offset_, staged_.size(), mode_.may_extend);
    if (mode_.sync_follows) start_writeback();
    staged_.clear();
}

void FileWriter::start_writeback() {
    // Writes come in file order, and the next one may still change the page that this one ends in.
    const uint64_t end = (staged_offset_ + staged_.size()) / kWritebackStep * kWritebackStep;
    if (end <= writeback_begun_) return;
    store_.start_writeback(writeback_begun_, end - writeback_begun_);
    writeback_begun_ = end;
}

}  // namespace mdb::detail
