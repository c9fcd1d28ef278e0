#include "mdb/allocator.h"

#include <string_view>
#include <tuple>
#include <utility>

#include "log/log.h"
#include "mdb/backing_store.h"
#include "mdb/block_cache.h"
#include "mdb/errors.h"
#include "mdb/object_slots.h"

namespace mdb {

namespace {

const logging::Logger logger{"objectio"};

/// Map blocks that stay in memory while all of them are walked.
constexpr size_t kResidentDuringWalk = 4;

/// How the counts of load_map() are logged, by mark; empty for the mark that doesn't exist.
constexpr std::array<std::string_view, kGreatestMark + 1> kMarkTitles = {
    "Empty blocks",      "Used blocks",           "Full blocks", "",
    "Root index blocks", "Non-root index blocks", "Leaf blocks", "Lob blocks"};

}  // namespace

Allocator::Allocator(BackingStore& store, Journal& journal, BlockCache& cache)
    : store_(store), journal_(journal), cache_(cache), block_size_(store.block_size()) {}

void Allocator::load_map(uint32_t map_start, uint32_t first_data_block) {
    if (block_size_ == 0)
        throw error_internal("Allocation map initialization attempted before block size was found");
    map_start_ = map_start;
    first_data_block_ = first_data_block;
    map_blocks_ = first_data_block - map_start;
    loaded_marks_ = {};
    uint64_t block = 0;
    for (uint32_t index = 0; index < map_blocks_; ++index) {
        const map_entry& entry = load_map_entry(static_cast<uint32_t>(block));
        for (const uint8_t mark : entry.marks) {
            if (!is_mark(mark))
                throw error_consistency(
                    fmt::format("Unknown alloc. bitmap ({}) for block {}", mark, block));
            if (mark != 0 && !store_.block_in_file(static_cast<uint32_t>(block)))
                throw error_consistency(
                    fmt::format("Block {} has mark {} but lies beyond the file of {} bytes", block,
                                mark, store_.file_length()));
            ++loaded_marks_[mark];
            ++block;
        }
        while (resident_.size() >= kResidentDuringWalk) resident_.erase(resident_.begin());
    }
    for (size_t mark = 0; mark < kMarkTitles.size(); ++mark)
        if (!kMarkTitles[mark].empty())
            logger.info("{}: {}", kMarkTitles[mark], loaded_marks_[mark]);
}

Allocator::map_entry& Allocator::load_map_entry(uint32_t block) {
    const uint32_t index = block / block_size_;
    if (current_ != nullptr && current_index_ == index) return *current_;
    auto found = resident_.find(index);
    if (found == resident_.end()) {
        // No journal is laid over these bytes: whatever changes a mark has made its map block
        // resident before.
        map_entry entry;
        entry.marks.resize(block_size_);
        store_.byte_read(entry.marks.data(), store_.block_offset(map_start_ + index), block_size_);
        bool inserted = false;
        std::tie(found, inserted) = resident_.emplace(index, std::move(entry));
        if (!inserted) throw error_internal("Lazy map-loading error in allocator");
    }
    current_ = &found->second;
    current_index_ = index;
    return *current_;
}

mark_t Allocator::query_mark(uint32_t block) {
    if (!in_map(block))
        throw error_range(fmt::format("Block {} for mark query is out of range", block));
    return static_cast<mark_t>(load_map_entry(block).marks[block % block_size_]);
}

std::span<const uint8_t> Allocator::resident_marks(uint32_t index) {
    return load_map_entry(index * block_size_).marks;
}

void Allocator::set_mark(uint32_t block, mark_t mark) {
    if (!in_map(block))
        throw error_range(fmt::format("Block {} for marking is out of range", block));
    set_mark_unchecked(block, mark);
}

void Allocator::set_mark_unchecked(uint32_t block, mark_t mark) {
    const auto value = static_cast<uint8_t>(mark);
    error::check(is_mark(value), "Mark {} is not a mark that a block can have", value);
    map_entry& entry = load_map_entry(block);
    const uint32_t index = block % block_size_;
    journal_.journal_update(&value, 1,
                            store_.block_offset(map_start_ + block / block_size_) + index);
    undo_.push_back({block, entry.marks[index], entry.freed});
    if (entry.marks[index] != 0 && value == 0) entry.freed = any_freed_ = true;
    entry.marks[index] = value;
}

mark_t Allocator::classify_block(const dobj& object) const {
    error::check(object.loaded() && !object.image, "Block {} is to be classified without its bytes",
                 object.block);
    const std::span<const std::byte> bytes{object.data, block_size_};
    uint32_t free = 0;
    for (uint32_t offset = 0; offset < block_size_;) {
        const Slot slot = checked_slot(bytes, object.block, offset);
        if (slot.placeholder) free += slot.length;
        offset = slot.end();
    }
    if (free < free_threshold(block_size_)) return mark_t::full;
    return free == block_size_ ? mark_t::empty : mark_t::used;
}

Slot Allocator::checked_slot(std::span<const std::byte> bytes, uint32_t block, uint32_t offset) {
    if (bytes.size() - offset < sizeof(uint32_t))
        throw error_consistency(fmt::format(
            "Object at offset {} in block {} leaves no room for its length", offset, block));
    const Slot slot = slot_at(bytes, offset);
    if (slot.length < slot_layout::kSmallestWord)
        throw error_consistency(
            fmt::format("Object at offset {} in block {} has zero length", offset, block));
    if (!slot_fits(slot, bytes.size()))
        throw error_consistency(fmt::format("Object at offset {} in block {} is {} bytes long",
                                            offset, block, slot.length));
    return slot;
}

void Allocator::clear_map_flags() {
    if (!any_freed_) return;
    for (auto& [index, entry] : resident_) entry.freed = false;
    any_freed_ = false;
}

void Allocator::transaction_began() {
    savepoints_.push_back({undo_.size(), alloc_cursor_});
}

void Allocator::transaction_merged() {
    savepoints_.pop_back();
    if (savepoints_.empty()) undo_.clear();
}

void Allocator::transaction_committed() {
    savepoints_.pop_back();
    error::check(savepoints_.empty(), "Commit with {} transactions open", savepoints_.size());
    undo_.clear();
    clear_map_flags();
}

void Allocator::transaction_aborted() {
    const Savepoint savepoint = savepoints_.back();
    savepoints_.pop_back();
    for (; undo_.size() > savepoint.undo_count; undo_.pop_back()) {
        const Undo& undo = undo_.back();
        map_entry& entry = load_map_entry(undo.block);
        entry.marks[undo.block % block_size_] = undo.mark;
        entry.freed = undo.freed;
    }
    alloc_cursor_ = savepoint.alloc_cursor;
}

}  // namespace mdb
