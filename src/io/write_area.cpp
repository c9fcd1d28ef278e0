#include "io/write_area.h"

#include <algorithm>
#include <fmt/format.h>

#include "error/exception.h"
#include "io/pool_layout.h"

namespace io {

using pool_layout::block_header;
using pool_layout::kFlagSpare;
using pool_layout::kFlagUsed;
using pool_layout::kHeaderBytes;
using pool_layout::load_header;
using pool_layout::store_header;
using pool_layout::store_prev_offset;

void WriteArea::init(uint64_t start, uint64_t size) {
    start_ = start;
    size_ = size;
    store_header(pool_, start, {0, 0, size - kHeaderBytes});
    error::check(load_header(pool_, start).next_offset(start) == end(), "block_header init error");
    search_off_ = start;
}

WriteArea::FreeBlock WriteArea::currentBlock() const {
    error::check(search_off_ != kNone, "SiblingOStream::writeBegin(), ready but no free blocks");
    const block_header header = load_header(pool_, search_off_);
    const uint64_t next = header.next_offset(search_off_);
    error::check(
        search_off_ >= start_ && search_off_ + kHeaderBytes <= end(),
        "SiblingOStream::writeBegin(): Invalid block_off: {} mastart: {} masize: {} bsize: {}",
        search_off_, start_, size_, header.length);
    error::check(next <= end(), "writeBegin(): next_offset out of bounds {}", next);
    const uint64_t size = next - search_off_ - kHeaderBytes;
    error::check(size != 0, "No space available in SiblingOStream::writeBegin()");
    return {pool_ + search_off_ + kHeaderBytes, size};
}

void WriteArea::initFree(uint64_t offset, uint64_t prev_offset, uint64_t next_offset) {
    const block_header header{prev_offset, 0, next_offset - offset - kHeaderBytes};
    store_header(pool_, offset, header);
    error::check(header.next_offset(offset) == next_offset,
                 "initFree next_offset is {} but should be {}", header.next_offset(offset),
                 next_offset);
}

void WriteArea::initUsed(uint64_t offset, uint64_t length, bool spare, uint64_t next_offset) {
    error::check(length != 0, "Creating empty block");
    const uint64_t flags = kFlagUsed | (spare ? kFlagSpare : 0);
    const block_header header{load_header(pool_, offset).prev_offset, flags, length};
    store_header(pool_, offset, header);
    error::check(header.next_offset(offset) == next_offset,
                 "initUsed next_offset is {} but should be {}", header.next_offset(offset),
                 next_offset);
}

// A block may end at the area's end, or so far before it that another header fits.
void WriteArea::checkNextOffset(uint64_t next_offset, const char* what) const {
    error::check(next_offset == end() || next_offset + kHeaderBytes <= end(),
                 "{} is at {} and the end of our area is at {}", what, next_offset, end());
}

uint64_t WriteArea::publish(uint64_t length) {
    const uint64_t offset = search_off_;
    const block_header free_block = load_header(pool_, offset);
    const uint64_t next = free_block.next_offset(offset);
    error::check(next <= end(), "writeCommit(): next_offset out of bounds {}", next);
    const uint64_t span = next - offset;
    error::check(length <= span - kHeaderBytes, "Overcommit in SiblingOStream");

    // Where a block of this length ends if nothing spare is added.
    const uint64_t rounded_end = block_header{0, 0, length}.next_offset(offset);
    if (length + 2 * kHeaderBytes > span) {
        error::check(rounded_end == next || rounded_end + 8 == next, "Invalid next_offset: {}",
                     next);
        checkNextOffset(next, "(nosplit) Next Offset of block");
        initUsed(offset, length, rounded_end != next, next);
        search_off_ = next;
    } else {
        error::check(rounded_end >= start_ && rounded_end + kHeaderBytes <= end(),
                     "new_offset {} out of bounds; mastart: {} masize: {}", rounded_end, start_,
                     size_);
        checkNextOffset(next, "(split) Next Offset of new block");
        initUsed(offset, length, false, rounded_end);
        initFree(rounded_end, offset, next);
        if (next < end()) store_prev_offset(pool_, next, rounded_end);
        search_off_ = rounded_end;
    }
    findFreeBlock();
    return offset;
}

void WriteArea::findFreeBlock() {
    // The walk may start at the area's end, which no block's next offset ever leads past.
    const uint64_t first = search_off_ == end() ? start_ : search_off_;
    uint64_t current = first;
    do {
        if (current + kHeaderBytes > end()) {
            error::check(current == end(), "search_off at {} with end of area at {}", current,
                         end());
            current = start_;
            continue;
        }
        const block_header header = load_header(pool_, current);
        const uint64_t next = header.next_offset(current);
        error::check(next > current && next <= end(),
                     "next_off ({}) is beyond our area, which ends at {}", next, end());
        if (!header.used() && header.length != 0) {
            search_off_ = current;
            return;
        }
        current = next;
    } while (current != first);
    search_off_ = kNone;
}

// Which blocks merge, with P the block before `offset` and N the one behind it:
//
//   P free: the merged block starts at P. search_off at P stays; search_off at `offset` (never at
//   rest, since it stands
//           at a free block) moves to P.
//   N free: the merged block ends at N's end. search_off at N moves to the merged block's start.
//
// Anything else leaves search_off where it is, outside the merged range.
bool WriteArea::release(uint64_t offset) {
    const block_header header = load_header(pool_, offset);
    error::check(header.used(), "Released block at {} is free", offset);

    uint64_t merged = offset;
    uint64_t before_merged = header.prev_offset;
    if (offset != start_) {
        const block_header previous = load_header(pool_, header.prev_offset);
        error::check(previous.next_offset(header.prev_offset) == offset,
                     "Bad next_offset - block header has {} and we expected {}",
                     previous.next_offset(header.prev_offset), offset);
        if (!previous.used()) {
            merged = header.prev_offset;
            before_merged = previous.prev_offset;
            if (search_off_ == offset) search_off_ = merged;
        }
    }

    uint64_t next = header.next_offset(offset);
    error::check(next == end() || next + kHeaderBytes <= end(),
                 "Bad new_free_next_offset: {} area end is {}", next, end());
    if (next < end() && !load_header(pool_, next).used()) {
        const uint64_t free_behind = next;
        next = load_header(pool_, free_behind).next_offset(free_behind);
        error::check(next == end() || next + kHeaderBytes <= end(),
                     "Bad2 new_free_next_offset: {} area end is {}", next, end());
        if (search_off_ == free_behind) search_off_ = merged;
    }

    initFree(merged, before_merged, next);
    if (next < end()) store_prev_offset(pool_, next, merged);
    error::check(search_off_ == kNone || search_off_ <= merged || search_off_ >= next,
                 "Search offset got coalesced... at: {}", search_off_);
    if (search_off_ != kNone) return false;
    search_off_ = merged;
    return true;
}

std::string WriteArea::checkBlock(uint64_t offset, uint64_t prev, bool prev_free, bool lent) const {
    const block_header header = load_header(pool_, offset);
    const uint64_t next = header.next_offset(offset);
    if (offset % 8 != 0 || next < offset + kHeaderBytes || next > end())
        return fmt::format("A1: block at {} reaches to {}", offset, next);
    if (next != end() && next + kHeaderBytes > end())
        return fmt::format("A1: block at {} leaves {} bytes", offset, end() - next);
    if (header.prev_offset != prev)
        return fmt::format("A2: block at {} has prev {} instead of {}", offset, header.prev_offset,
                           prev);
    if (!header.used() && (header.flags != 0 || header.length != next - offset - kHeaderBytes))
        return fmt::format("A3: free block at {} has flags {}", offset, header.flags);
    if (!header.used() && prev_free)
        return fmt::format("A4: free blocks at {} and {}", prev, offset);
    if (header.used() != lent || (lent && header.length == 0))
        return fmt::format("A5: block at {} is {}", offset,
                           lent ? "lent but free or empty" : "used but not lent");
    return {};
}

std::string WriteArea::check_area(std::span<const uint64_t> used) const {
    if (!available()) return used.empty() ? std::string() : "A5: blocks lent without an area";
    uint64_t prev = 0;
    bool prev_free = false;
    bool room = false;
    bool search_is_block = false;
    size_t used_seen = 0;
    for (uint64_t offset = start_; offset != end();) {
        const bool lent = std::binary_search(used.begin(), used.end(), offset);
        std::string fault = checkBlock(offset, prev, prev_free, lent);
        if (!fault.empty()) return fault;
        const block_header header = load_header(pool_, offset);
        used_seen += lent ? 1 : 0;
        prev_free = !header.used();
        const bool writable = prev_free && header.length != 0;
        room = room || writable;
        search_is_block = search_is_block || (writable && offset == search_off_);
        prev = offset;
        offset = header.next_offset(offset);
    }
    if (used_seen != used.size()) return "A5: a lent block is not in the area";
    if (search_off_ == kNone ? room : !search_is_block)
        return fmt::format("A6: search offset {}", search_off_);
    return {};
}

}  // namespace io
