// The search for room: which block to take, in which order blocks are looked at, and when the file
// grows.
#include <algorithm>
#include <cstring>

#include "log/log.h"
#include "mdb/allocator.h"
#include "mdb/backing_store.h"
#include "mdb/block_cache.h"
#include "mdb/errors.h"
#include "mdb/object_slots.h"
#include "meter/meter.h"

namespace mdb {

namespace {

const logging::Logger logger{"objectio"};

meter::Group metrics{"alloc"};
meter::IntegerCounter nohint_calls{&metrics, "nohint_calls", "",
                                   "Non-hinted MDB space allocation requests"};
meter::IntegerCounter hint_calls{&metrics, "hint_calls", "",
                                 "Hinted MDB space allocation requests"};
meter::IntegerCounter hintfail{&metrics, "hintfail", "",
                               "Number of times the hint passed to the allocator failed to provide "
                               "a quick allocation"};
meter::IntegerCounter lastfail{&metrics, "lastfail", "",
                               "Number of times the last-good block remembered by the allocator "
                               "failed to provide a quick allocation"};
meter::IntegerCounter bloads{
    &metrics, "bloads", "",
    "Number of full MDB blocks loaded from backing store for placeholder search"};

}  // namespace

void Allocator::allocate_space(uint32_t hint, uint32_t size, dobj& out) {
    (hint == 0 ? nohint_calls : hint_calls).increment();
    // No block can hold it: a sweep would only grow the file to the end of the map.
    if (size > block_size_) throw_no_space();
    if (hint != 0) {
        if (search_pass(hint, hint, size, out)) return;
        hintfail.increment();
    }
    if (alloc_cursor_ != 0) {
        if (search_pass(alloc_cursor_, 0, size, out)) return;
        alloc_cursor_ = 0;
        lastfail.increment();
    }
    if (search_pass(first_data_block_, 0, size, out)) return;
    throw_no_space();
}

void Allocator::throw_no_space() const {
    logger.warning("No valid block found for space allocation");
    throw error_dbnospace("No free blocks in meta database");
}

bool Allocator::search_pass(uint32_t start, uint32_t hint, uint32_t size, dobj& out) {
    const bool final_sweep = hint == 0 && alloc_cursor_ == 0;
    const uint64_t end = uint64_t{map_blocks_} * block_size_;
    for (uint64_t at = std::max(first_data_block_, start); at < end; ++at) {
        auto block = static_cast<uint32_t>(at);
        if (hint == 0) at = block = skip_unusable_blocks(block);
        if (!store_.block_in_file(block)) {
            if (!final_sweep) return false;
            store_.ensure_block(block);
        }
        const mark_t mark = query_mark(block);
        if (mark == mark_t::empty) {
            take_empty_block(block, out);
            return true;
        }
        if (mark == mark_t::used || (mark == mark_t::full && hint != 0))
            if (search_block(block, mark, size, out)) return true;
        if (hint != 0) return false;
    }
    return false;
}

uint32_t Allocator::skip_unusable_blocks(uint32_t block) {
    const std::vector<uint8_t>& marks = load_map_entry(block).marks;
    for (uint32_t index = block % block_size_; index + 1 < block_size_; ++index, ++block)
        if (marks[index] <= static_cast<uint8_t>(mark_t::used) || !store_.block_in_file(block + 1))
            break;
    return block;
}

void Allocator::take_empty_block(uint32_t block, dobj& out) {
    BlockBuffer bytes = cache_.private_block(block);
    set_slot({bytes.data(), block_size_}, Slot{0, block_size_, true});
    Transaction transaction(journal_);
    journal_.journal_update(bytes.data(), sizeof(uint32_t), store_.block_offset(block));
    set_mark(block, mark_t::used);
    transaction.commit();
    alloc_cursor_ = block;
    logger.debug("Found empty block - starting from scratch on that one");
    out = dobj({block, 0}, std::move(bytes));
}

bool Allocator::search_block(uint32_t block, mark_t mark, uint32_t size, dobj& out) {
    if (mark == mark_t::empty) throw error_internal("Search for placeholder in empty block");
    BlockBuffer bytes = cache_.private_block(block);
    bloads.increment();
    const Found found = find_placeholder({bytes.data(), block_size_}, block, size);
    if (found.too_full && mark != mark_t::full) mark_full(block);
    if (!found.fit) return false;
    if (!found.too_full) alloc_cursor_ = block;
    out = dobj({block, found.offset}, std::move(bytes));
    return true;
}

Allocator::Found Allocator::find_placeholder(std::span<const std::byte> bytes, uint32_t block,
                                             uint32_t size) const {
    const uint32_t threshold = free_threshold(block_size_);
    Found found;
    uint32_t free = 0;
    for (uint32_t offset = 0; offset < block_size_ && !(found.fit && free >= threshold);) {
        const Slot slot = checked_slot(bytes, block, offset);
        if (slot.placeholder) {
            free += slot.length;
            if (slot.length >= size) {
                found.fit = true;
                found.offset = offset;
            }
        }
        offset = slot.end();
    }
    found.too_full = free < threshold;
    return found;
}

void Allocator::mark_full(uint32_t block) {
    Transaction transaction(journal_);
    set_mark(block, mark_t::full);
    transaction.commit();
    logger.info("Marked block {} as full", block);
}

uint32_t Allocator::allocate_empty_block(uint32_t hint, bool force) {
    const uint64_t end = uint64_t{map_blocks_} * block_size_;
    uint32_t block = 0;
    const bool found = find_empty(std::max(hint, first_data_block_), end, force, block) ||
                       (hint != 0 && find_empty(first_data_block_, end, force, block));
    if (!found) {
        logger.warning("No valid empty block found for empty block allocation");
        throw error_dbnospace("No empty blocks in meta database");
    }
    store_.ensure_block(block);
    return block;
}

bool Allocator::find_empty(uint64_t from, uint64_t to, bool force, uint32_t& found) {
    while (from < to) {
        const map_entry& entry = load_map_entry(static_cast<uint32_t>(from));
        const auto index = static_cast<uint32_t>(from % block_size_);
        const uint8_t* first = entry.marks.data() + index;
        const void* empty =
            force || !entry.freed ? std::memchr(first, 0, block_size_ - index) : nullptr;
        if (empty == nullptr) {
            from += block_size_ - index;
            continue;
        }
        from += static_cast<uint64_t>(static_cast<const uint8_t*>(empty) - first);
        found = static_cast<uint32_t>(from++);
        if (force || !journal_.claims(found)) return true;
    }
    return false;
}

}  // namespace mdb
