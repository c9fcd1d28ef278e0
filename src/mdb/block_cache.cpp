#include "mdb/block_cache.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "mdb/backing_store.h"
#include "mdb/errors.h"
#include "mdb/journal.h"
#include "meter/meter.h"

namespace mdb {

namespace {

meter::Group metrics{"buffercache"};
meter::IntegerCounter hits{&metrics, "hits", "", "Number of buffer cache hits"};
meter::IntegerCounter misses{&metrics, "misses", "", "Number of buffer cache misses"};
meter::IntegerGauge size_kib{&metrics, "size", "KiB", "Current size of buffer cache"};

constexpr uint64_t kGreatestWord = std::numeric_limits<uint32_t>::max();

}  // namespace

void copy_overlap(std::byte* buffer, size_t length, uint64_t buffer_offset,
                  std::span<const std::byte> data, uint64_t update_offset) {
    const uint64_t start = std::max(update_offset, buffer_offset);
    const uint64_t end = std::min(update_offset + data.size(), buffer_offset + length);
    if (start >= end) throw error_internal("Non-positive overlap during local replay");
    if (start - buffer_offset > kGreatestWord)
        throw error_internal("Supplied data buffer left start beyond 32 bits");
    if (start - update_offset > kGreatestWord)
        throw error_internal("Journal data buffer left start beyond 32 bits");
    std::memcpy(buffer + (start - buffer_offset), data.data() + (start - update_offset),
                static_cast<size_t>(end - start));
}

BlockCache::BlockCache(BackingStore& store, Journal& journal, BlockPool& pool, uint32_t limit)
    : store_(store), journal_(journal), pool_(pool), block_cache_limit_(limit) {
    if (limit == 0) throw error_internal("The buffer cache must hold at least one block");
}

const std::byte* BlockCache::cached_block(uint32_t block) {
    if (block_cache_entry** found = table_.find(block); found != nullptr) {
        block_cache_entry& entry = **found;
        error::check(entry.block == block, "Buffer cache corruption");
        if (&entry != newest_) {
            unlink(entry);
            push_front(entry);
        }
        hits.increment();
        return entry.bytes.data();
    }
    misses.increment();
    block_cache_entry& entry = take_entry();
    read_block(entry, block);
    entry.block = block;
    entry.in_use = true;
    unlink(entry);
    push_front(entry);
    table_.insert(block, &entry);
    return entry.bytes.data();
}

BlockCache::block_cache_entry& BlockCache::take_entry() {
    const bool spare = oldest_ != nullptr && !oldest_->in_use;
    if (!spare && entries_.size() < block_cache_limit_) {
        BlockBuffer bytes = pool_.acquire();
        block_cache_entry& entry = entries_.emplace_back();
        entry.bytes = std::move(bytes);
        push_back(entry);
        size_kib.set(cache_size_kib());
    }
    // Until the read has succeeded the entry holds no block and stays last, to be taken again.
    if (oldest_->in_use) table_.erase(oldest_->block);
    oldest_->in_use = false;
    return *oldest_;
}

void BlockCache::read_block(block_cache_entry& entry, uint32_t block) {
    store_.block_read(entry.bytes.data(), block, 1);
    journal_.overlay_unwritten(entry.bytes.data(), store_.block_size(), store_.block_offset(block));
}

void BlockCache::unlink(block_cache_entry& entry) {
    (entry.newer == nullptr ? newest_ : entry.newer->older) = entry.older;
    (entry.older == nullptr ? oldest_ : entry.older->newer) = entry.newer;
}

void BlockCache::push_front(block_cache_entry& entry) {
    entry.newer = nullptr;
    entry.older = newest_;
    (newest_ == nullptr ? oldest_ : newest_->newer) = &entry;
    newest_ = &entry;
}

void BlockCache::push_back(block_cache_entry& entry) {
    entry.older = nullptr;
    entry.newer = oldest_;
    (oldest_ == nullptr ? newest_ : oldest_->older) = &entry;
    oldest_ = &entry;
}

void BlockCache::copy_cached_block(std::byte* buffer, uint32_t block) {
    std::memcpy(buffer, cached_block(block), store_.block_size());
}

BlockBuffer BlockCache::private_block(uint32_t block) {
    BlockBuffer buffer = pool_.acquire();
    copy_cached_block(buffer.data(), block);
    journal_.overlay_open_transaction(buffer.data(), store_.block_size(),
                                      store_.block_offset(block));
    return buffer;
}

void BlockCache::apply_update(uint32_t block, std::span<const std::byte> data,
                              uint64_t file_offset) {
    block_cache_entry** found = table_.find(block);
    if (found == nullptr) return;
    copy_overlap((*found)->bytes.data(), store_.block_size(), store_.block_offset(block), data,
                 file_offset);
}

const std::byte* BlockCache::peek(uint32_t block) const {
    block_cache_entry* const* found = table_.find(block);
    return found == nullptr ? nullptr : (*found)->bytes.data();
}

void BlockCache::forget(uint32_t block) {
    block_cache_entry** found = table_.find(block);
    if (found == nullptr) return;
    block_cache_entry& entry = **found;
    table_.erase(block);
    entry.in_use = false;
    unlink(entry);
    push_back(entry);
}

uint64_t BlockCache::cache_size_kib() const {
    return uint64_t{store_.block_size()} * entries_.size() / 1024;
}

}  // namespace mdb
