// Memory on huge pages, for what is large and reached in random order: with pages of the usual size
// nearly every access would have to look up its page's address first.
#pragma once

#include <cstddef>
#include <memory>

namespace platform {

struct FreeHugePages {
    void operator()(std::byte* memory) const noexcept;
};
using HugePages = std::unique_ptr<std::byte[], FreeHugePages>;

inline constexpr std::size_t kHugePage_bytes = std::size_t{2} << 20;

/// `size` bytes of undefined content, in whole huge pages if it is one at least and the system has
/// any to give, and in usual ones otherwise. Throws std::bad_alloc.
[[nodiscard]] HugePages allocate_huge_pages(std::size_t size);

/// For the large tables among containers.
template <class T>
struct HugeAllocator {
    using value_type = T;

    HugeAllocator() = default;
    template <class Other>
    HugeAllocator(const HugeAllocator<Other>&) noexcept {}

    [[nodiscard]] T* allocate(std::size_t count) {
        return reinterpret_cast<T*>(allocate_huge_pages(count * sizeof(T)).release());
    }
    void deallocate(T* memory, std::size_t) noexcept {
        FreeHugePages{}(reinterpret_cast<std::byte*>(memory));
    }
    friend bool operator==(const HugeAllocator&, const HugeAllocator&) noexcept { return true; }
};

}  // namespace platform
