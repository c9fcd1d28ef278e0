#include "platform/huge_pages.h"

#include <cstdlib>
#include <new>
#include <sys/mman.h>

namespace platform {

void FreeHugePages::operator()(std::byte* memory) const noexcept {
    std::free(memory);
}

HugePages allocate_huge_pages(std::size_t size) {
    const bool is_huge = size >= kHugePage_bytes;
    const std::size_t whole = (size + kHugePage_bytes - 1) / kHugePage_bytes * kHugePage_bytes;
    void* memory = is_huge ? std::aligned_alloc(kHugePage_bytes, whole) : std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    // A wish: a system without huge pages does as well.
    if (is_huge) static_cast<void>(::madvise(memory, whole, MADV_HUGEPAGE));
    return HugePages(static_cast<std::byte*>(memory));
}

}  // namespace platform
