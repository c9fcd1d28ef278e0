// Which updates touch which block, in the order in which they were made. It stands in for a walk
// over the journal: to lay pending updates over a block costs what touches the block, and to write
// them out costs one visit to each block. It holds no bytes, only where they are.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace mdb::detail {

/// A table from block number to a 32-bit number that is emptied without being touched.
class BlockHeads {
  public:
    static constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();

    BlockHeads() : slots_(64) {}

    /// The number of `block`, made as kNone if there is none; lives until the next call.
    [[nodiscard]] uint32_t& at(uint32_t block);
    [[nodiscard]] uint32_t find(uint32_t block) const;
    void clear();

  private:
    struct Slot {
        uint32_t block = 0;
        uint32_t generation = 0;
        uint32_t value = kNone;
    };
    void grow();
    [[nodiscard]] size_t home(uint32_t block) const {
        return (block * 0x9E3779B1U >> 7) & (slots_.size() - 1);
    }

    std::vector<Slot> slots_;
    uint32_t generation_ = 1;
    size_t used_ = 0;
};

class BlockUpdates {
  public:
    /// The part of an update that lies in one block.
    struct Piece {
        uint32_t block;
        /// First byte in the block, and how many.
        uint32_t start;
        uint32_t length;
        /// Where the bytes are, as the owner counts.
        uint32_t source;
        /// The piece of the same block made before this one, or kNone.
        uint32_t older;
    };

    /// Adds a piece. An older one of the same block that it hides completely may be forgotten,
    /// unless it was made before the first `keep` pieces were complete.
    void add(uint32_t block, uint32_t start, uint32_t length, uint32_t source, size_t keep);

    /// Number of pieces to hand to truncate() later.
    [[nodiscard]] size_t count() const noexcept { return pieces_.size(); }
    /// Forgets all but the first `count` pieces. None of those may have been hidden since, see
    /// add().
    void truncate(size_t count);
    void clear();
    [[nodiscard]] bool empty() const noexcept { return pieces_.empty(); }
    /// True when `block` has pieces.
    [[nodiscard]] bool has(uint32_t block) const { return heads_.find(block) != BlockHeads::kNone; }

    /// Appends the pieces of `block` to `out`, oldest first.
    void collect(uint32_t block, std::vector<Piece>& out) const;
    /// Calls visit(piece) for the pieces of `block`, oldest first.
    template <class Visit>
    void for_block(uint32_t block, Visit&& visit) const {
        scratch_.clear();
        collect(block, scratch_);
        for (const Piece& piece : scratch_) visit(piece);
    }
    /// All pieces in the order in which they were made; those with length 0 are hidden by later
    /// ones.
    [[nodiscard]] const std::vector<Piece>& pieces() const noexcept { return pieces_; }
    /// Appends the blocks that have pieces to `out`, which was empty, ascending.
    void blocks(std::vector<uint32_t>& out) const;

  private:
    void drop_hidden(uint32_t& head, uint32_t start, uint32_t length, size_t keep);

    std::vector<Piece> pieces_;
    /// Newest piece of each block.
    BlockHeads heads_;
    mutable std::vector<Piece> scratch_;
};

}  // namespace mdb::detail
