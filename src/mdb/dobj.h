// Block-sized buffers and the in-memory handle of a stored object. Buffers come from one pool per
// database and go back to it, since every block access within a transaction takes a private copy.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "mdb/block_layout.h"
#include "platform/huge_pages.h"

namespace mdb {

class BlockPool;

/// Owns one buffer of a block's size, or nothing. Must not outlive its pool.
class BlockBuffer {
  public:
    BlockBuffer() = default;
    BlockBuffer(BlockBuffer&& other) noexcept
        : pool_(other.pool_), bytes_(std::exchange(other.bytes_, nullptr)) {}
    BlockBuffer& operator=(BlockBuffer&& other) noexcept {
        std::swap(pool_, other.pool_);
        std::swap(bytes_, other.bytes_);
        return *this;
    }
    ~BlockBuffer();

    /// The bytes, or null when this owns nothing.
    [[nodiscard]] std::byte* data() const noexcept { return bytes_; }
    [[nodiscard]] explicit operator bool() const noexcept { return bytes_ != nullptr; }

  private:
    friend class BlockPool;
    BlockBuffer(BlockPool* pool, std::byte* bytes) : pool_(pool), bytes_(bytes) {}

    BlockPool* pool_ = nullptr;
    std::byte* bytes_ = nullptr;
};

/// Hands out buffers of one size and keeps those given back. They lie together on huge pages, since
/// objects are read here in any order.
class BlockPool {
  public:
    explicit BlockPool(uint32_t block_size) : block_size_(block_size) {}
    BlockPool(const BlockPool&) = delete;
    BlockPool& operator=(const BlockPool&) = delete;

    /// A buffer with undefined content.
    [[nodiscard]] BlockBuffer acquire();
    [[nodiscard]] uint32_t block_size() const noexcept { return block_size_; }

  private:
    friend class BlockBuffer;
    void release(std::byte* bytes) noexcept { idle_.push_back(bytes); }
    void make_more();

    uint32_t block_size_;
    size_t made_ = 0;
    std::vector<platform::HugePages> pieces_;
    std::vector<std::byte*> idle_;
};

inline BlockBuffer::~BlockBuffer() {
    if (bytes_ != nullptr) pool_->release(bytes_);
}

/// A stored object as it lies in memory: its place and the bytes of its block. Two forms exist: a
/// private copy of the block, which the dobj owns and may change, and a view of the cache, which
/// must not be changed and lives only until the next block is accessed.
struct dobj {
    uint32_t block = 0;
    uint32_t offset = kNullOffset;
    /// Bytes of the whole block; null when nothing is loaded.
    const std::byte* data = nullptr;
    /// Owner of `data` when this is a private copy, else empty.
    BlockBuffer copy;
    /// True for the image of an object update: `data` holds this object alone, at byte 0.
    bool image = false;

    dobj() = default;
    /// Takes over a private copy of the block of `handle`.
    dobj(block_handle_t handle, BlockBuffer owned)
        : block(handle.block), offset(handle.offset), data(owned.data()), copy(std::move(owned)) {}
    /// Looks at cached memory.
    dobj(block_handle_t handle, const std::byte* cached)
        : block(handle.block), offset(handle.offset), data(cached) {}
    dobj(dobj&& other) noexcept
        : block(other.block),
          offset(std::exchange(other.offset, kNullOffset)),
          data(std::exchange(other.data, nullptr)),
          copy(std::move(other.copy)),
          image(other.image) {}
    dobj& operator=(dobj&& other) noexcept {
        block = other.block;
        offset = std::exchange(other.offset, kNullOffset);
        data = std::exchange(other.data, nullptr);
        copy = std::move(other.copy);
        image = other.image;
        return *this;
    }

    [[nodiscard]] block_handle_t handle() const noexcept { return {block, offset}; }
    /// Where the object's slot begins in `data`.
    [[nodiscard]] uint32_t slot_offset() const noexcept { return image ? 0 : offset; }
    /// True when there are bytes to look at.
    [[nodiscard]] bool loaded() const noexcept { return data != nullptr; }
    /// The private copy's bytes, to be changed; null when this only looks at the cache.
    [[nodiscard]] std::byte* writable() const noexcept { return copy.data(); }
};

}  // namespace mdb
