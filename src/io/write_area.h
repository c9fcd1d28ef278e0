// io::WriteArea: the block allocator of a process's own area. It hands out the free block where the
// next message is written, turns its beginning into a used block, and takes used blocks back,
// merged with their free neighbours. It is next-fit: a steady stream cycles through the area. Who
// reads a block and how he learns of it is not its matter.
//
//   writing:   currentBlock() -> fill payload -> publish(length) -> the block's offset
//   releasing: release(offset), any time but between currentBlock() and publish()
//
// publish and release cost O(1), but for the walk to the next free block, which is long only when
// the area is nearly full.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace io {

class WriteArea {
  public:
    static constexpr uint64_t kNone = ~uint64_t{0};

    /// No area yet. `pool` must outlive the object.
    explicit WriteArea(uint8_t* pool) : pool_(pool) {}

    /// Takes [start, start + size) and writes one free block over it. Both multiples of 8, size
    /// above 16.
    void init(uint64_t start, uint64_t size);
    [[nodiscard]] bool available() const { return size_ != 0; }
    /// True if there is an area and a block in it to write to.
    [[nodiscard]] bool hasFreeBlock() const { return available() && search_off_ != kNone; }

    struct FreeBlock {
        uint8_t* payload;
        uint64_t size;  ///< bytes, at least one
    };
    /// The free block where the next write starts. hasFreeBlock() must hold.
    [[nodiscard]] FreeBlock currentBlock() const;
    /// Makes the first `length` bytes of the current block a used block, at least one, and gives
    /// its offset. What is left over becomes a free block if a header fits.
    uint64_t publish(uint64_t length);
    /// Frees the used block at `offset`. True if the area was full before.
    bool release(uint64_t offset);

    [[nodiscard]] uint64_t start() const { return start_; }
    [[nodiscard]] uint64_t size() const { return size_; }
    [[nodiscard]] uint64_t searchOffset() const { return search_off_; }

    /// Walks the whole area against invariants A1 to A6; `used` are the offsets of the blocks lent
    /// out, ascending. Gives what is wrong, naming the invariant, or an empty text. For tests and
    /// diagnostics.
    [[nodiscard]] std::string check_area(std::span<const uint64_t> used) const;

  private:
    [[nodiscard]] uint64_t end() const { return start_ + size_; }
    void initFree(uint64_t offset, uint64_t prev_offset, uint64_t next_offset);
    void initUsed(uint64_t offset, uint64_t length, bool spare, uint64_t next_offset);
    void checkNextOffset(uint64_t next_offset, const char* what) const;
    void findFreeBlock();
    [[nodiscard]] std::string checkBlock(uint64_t offset, uint64_t prev, bool prev_free,
                                         bool lent) const;

    uint8_t* pool_;
    uint64_t start_ = 0;
    uint64_t size_ = 0;
    uint64_t search_off_ = kNone;
};

}  // namespace io
