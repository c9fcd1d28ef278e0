// work_t: the working form of one property of one object while an operation runs, and the array of
// them that stands beside a class's sorted properties. It holds what will be stored, not what a
// query sees.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "mdb/property.h"

namespace dbcache {

/// The two top bits of work_t::flags, and of the flags of a value that a client sends, are the
/// value's state.
inline constexpr uint32_t kStateMask = 0xC0000000;
/// The value comes from the inheritance parent. In a client's value: a request to inherit.
inline constexpr uint32_t kStateInherited = 0x80000000;
/// Bit that says nothing about a change of value.
inline constexpr uint32_t kStateSpareBit = 0x40000000;
/// Set by the request of an action; nothing is stored.
inline constexpr uint32_t kStateRequested = 0x01000000;

/// Called PropUpdate in the texts of assertions. Freed with its array.
struct work_t {
    /// Null for a null value.
    std::unique_ptr<mdb::Property> prop;
    uint32_t flags = 0;

    [[nodiscard]] bool is_null() const noexcept { return prop == nullptr; }
    [[nodiscard]] bool is_inherited() const noexcept {
        return (flags & kStateMask) == kStateInherited;
    }
    void set_inherited(bool inherited) noexcept {
        flags = (flags & ~kStateMask) | (inherited ? kStateInherited : 0);
    }
};

/// Parallel to NodetypeSchema::properties().
using WorkArray = std::vector<work_t>;

}  // namespace dbcache
