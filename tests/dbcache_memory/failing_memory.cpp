#include "failing_memory.h"

#include <algorithm>
#include <cstdlib>
#include <malloc.h>
#include <new>

Memory& Memory::get() {
    static Memory memory;
    return memory;
}

void* Memory::allocate(size_t size) {
    if (left_ > 0 && --left_ == 0) throw std::bad_alloc();
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    bytes_ += malloc_usable_size(memory);
    peak_ = std::max(peak_, bytes_);
    return memory;
}

void Memory::free(void* memory) noexcept {
    if (memory != nullptr) bytes_ -= malloc_usable_size(memory);
    std::free(memory);
}

void* operator new(size_t size) {
    return Memory::get().allocate(size);
}
void* operator new(size_t size, const std::nothrow_t& /*nothrow*/) noexcept {
    try {
        return Memory::get().allocate(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept {
    Memory::get().free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    Memory::get().free(memory);
}
