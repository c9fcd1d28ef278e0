// The way from the root of an index down to a leaf. Blocks hold no pointers to their parents, so
// whoever changes a leaf finds the nodes above it here. A path says only where the blocks are: it
// holds no copies of them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <fmt/format.h>

#include "mdb/errors.h"

namespace mdb::detail {

/// One block of the path. In a node `position` is the child that the path goes on to.
struct PathLevel {
    uint32_t block = 0;
    uint32_t position = 0;
};

/// Levels from the root down, bounded: a tree that goes deeper has a cycle in it.
class SearchPath {
  public:
    /// Blocks split in halves, so that 2^32 blocks of the smallest size fill less than half of
    /// this.
    static constexpr size_t kGreatestDepth = 16;

    void clear() { depth_ = 0; }
    [[nodiscard]] bool empty() const { return depth_ == 0; }
    [[nodiscard]] size_t depth() const { return depth_; }
    [[nodiscard]] PathLevel& level(size_t i) { return levels_[i]; }
    [[nodiscard]] const PathLevel& level(size_t i) const { return levels_[i]; }
    /// The lowest level; the path must not be empty.
    [[nodiscard]] PathLevel& bottom() { return levels_[depth_ - 1]; }
    [[nodiscard]] const PathLevel& bottom() const { return levels_[depth_ - 1]; }

    /// Throws error_need_repair when the path is as deep as a path can be.
    void push(uint32_t block, uint32_t position) {
        if (depth_ == kGreatestDepth)
            throw error_need_repair(fmt::format("Corrupt index block at {}", block));
        levels_[depth_++] = {block, position};
    }
    void pop() { --depth_; }
    /// Keeps the upper `depth` levels.
    void truncate(size_t depth) { depth_ = depth; }
    /// The path without its lowest level, which is there.
    [[nodiscard]] SearchPath parents() const {
        SearchPath upper = *this;
        upper.pop();
        return upper;
    }

  private:
    std::array<PathLevel, kGreatestDepth> levels_;
    size_t depth_ = 0;
};

}  // namespace mdb::detail
