#include "failing_memory.h"

#include <cstdlib>
#include <new>

Memory& Memory::get() {
    static Memory memory;
    return memory;
}

void* Memory::allocate(size_t size) {
    if (left_ > 0 && --left_ == 0) throw std::bad_alloc();
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void* operator new(size_t size) {
    return Memory::get().allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
