// Where the parent put the areas of its siblings. Places them first fit in offset order. An area
// belongs to one life of a sibling; after its end it stays taken until everybody has let go of it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

namespace io {

class AreaTable {
  public:
    /// Areas lie in [first, end), both multiples of 8.
    AreaTable(uint32_t first, uint64_t end) : first_(first), end_(end) {}

    /// The offset of a new area for `sibling_id`, or none if there is no room.
    std::optional<uint32_t> place(uint32_t sibling_id, uint32_t size_bytes);
    /// The area at `offset` is free from now on; one that isn't taken is a fatal assertion.
    void release(uint32_t offset, uint32_t sibling_id);

    struct Area {
        uint32_t size_bytes;
        uint32_t sibling_id;
    };
    [[nodiscard]] const std::map<uint32_t, Area>& areas() const { return areas_; }

  private:
    uint32_t first_;
    uint64_t end_;
    std::map<uint32_t, Area> areas_;
};

}  // namespace io
