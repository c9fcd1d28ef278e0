// What every block is used for, and where there is room: the resident allocation map and the search
// for space. It finds places; it reserves nothing: whoever asked splits the placeholder or sets the
// mark, in a transaction. Marks go through the journal like all other bytes; an abort takes them
// back in memory too.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "mdb/block_layout.h"
#include "mdb/dobj.h"
#include "mdb/journal.h"

namespace mdb {

class BackingStore;
class BlockCache;
struct Slot;

class Allocator final : public TransactionObserver {
  public:
    Allocator(BackingStore& store, Journal& journal, BlockCache& cache);

    /// Takes the place of the map from the header, walks all marks and logs how many there are of
    /// each. Throws error_consistency for a mark that no block can have.
    void load_map(uint32_t map_start, uint32_t first_data_block);

    /// Finds a placeholder of at least `size` bytes, `hint` being a block to look into first, 0 for
    /// none. `out` gets a private copy of the block and the placeholder's handle. May grow the
    /// file. Throws error_dbnospace.
    void allocate_space(uint32_t hint, uint32_t size, dobj& out);
    /// Number of an empty block, the first at or above `hint` if there is one. Without `force` it
    /// may be written to past the journal: it is none near one that the open transaction has
    /// emptied, and none that the journal claims. The caller sets the mark. error_dbnospace.
    [[nodiscard]] uint32_t allocate_empty_block(uint32_t hint, bool force);

    /// error_range when the map has no byte for `block`.
    [[nodiscard]] mark_t query_mark(uint32_t block);
    /// The marks of block `index` * block size and those behind it, one block of the map, as they
    /// stand in memory; `index` is below map_blocks(). Lives until the next call of any operation.
    [[nodiscard]] std::span<const uint8_t> resident_marks(uint32_t index);
    /// Both need an open transaction. The first throws error_range; the second leaves that check
    /// out.
    void set_mark(uint32_t block, mark_t mark);
    void set_mark_unchecked(uint32_t block, mark_t mark);
    /// The mark that the content of an object block calls for; needs `object`'s bytes, not its
    /// offset.
    [[nodiscard]] mark_t classify_block(const dobj& object) const;

    [[nodiscard]] uint32_t first_data_block() const noexcept { return first_data_block_; }
    [[nodiscard]] uint32_t map_start() const noexcept { return map_start_; }
    [[nodiscard]] uint32_t map_blocks() const noexcept { return map_blocks_; }
    /// The block that an unhinted search starts at, 0 for none.
    [[nodiscard]] uint32_t alloc_cursor() const noexcept { return alloc_cursor_; }
    /// Blocks of each mark at load_map().
    [[nodiscard]] const std::array<uint64_t, kGreatestMark + 1>& loaded_marks() const noexcept {
        return loaded_marks_;
    }

    void transaction_began() override;
    void transaction_merged() override;
    void transaction_committed() override;
    void transaction_aborted() override;

  private:
    /// One resident block of the map.
    struct map_entry {
        std::vector<uint8_t> marks;
        /// A block of this map block was emptied since the last commit of a top-level transaction.
        bool freed = false;
    };
    /// A mark as it was before the open transaction changed it.
    struct Undo {
        uint32_t block;
        uint8_t mark;
        bool freed;
    };
    struct Savepoint {
        size_t undo_count;
        uint32_t alloc_cursor;
    };
    struct Found {
        bool fit = false;
        bool too_full = false;
        uint32_t offset = 0;
    };
    [[nodiscard]] bool in_map(uint32_t block) const { return block / block_size_ < map_blocks_; }
    /// Makes the map block that covers `block` resident and current.
    map_entry& load_map_entry(uint32_t block);
    void clear_map_flags();
    [[nodiscard]] static Slot checked_slot(std::span<const std::byte> bytes, uint32_t block,
                                           uint32_t offset);

    [[nodiscard]] bool search_pass(uint32_t start, uint32_t hint, uint32_t size, dobj& out);
    [[nodiscard]] uint32_t skip_unusable_blocks(uint32_t block);
    void take_empty_block(uint32_t block, dobj& out);
    [[nodiscard]] bool search_block(uint32_t block, mark_t mark, uint32_t size, dobj& out);
    [[nodiscard]] Found find_placeholder(std::span<const std::byte> bytes, uint32_t block,
                                         uint32_t size) const;
    void mark_full(uint32_t block);
    [[noreturn]] void throw_no_space() const;
    [[nodiscard]] bool find_empty(uint64_t from, uint64_t to, bool force, uint32_t& found);

    BackingStore& store_;
    Journal& journal_;
    BlockCache& cache_;
    uint32_t block_size_;
    uint32_t map_start_ = 0;
    uint32_t first_data_block_ = 0;
    uint32_t map_blocks_ = 0;
    uint32_t alloc_cursor_ = 0;

    std::map<uint32_t, map_entry> resident_;
    map_entry* current_ = nullptr;
    uint32_t current_index_ = 0;
    bool any_freed_ = false;

    std::vector<Undo> undo_;
    std::vector<Savepoint> savepoints_;
    std::array<uint64_t, kGreatestMark + 1> loaded_marks_{};
};

}  // namespace mdb
