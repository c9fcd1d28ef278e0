// Memory: the allocator of this program, which counts bytes and can be told to fail once. Its
// operators stand in a file of their own, so that the compiler never sees one half of a pair
// inlined.
#pragma once

#include <cstddef>
#include <cstdint>

/// Counts what is allocated, and lets one allocation fail.
class Memory {
  public:
    static Memory& get();
    /// The `n`-th allocation from now on throws std::bad_alloc, those before and after it work.
    void fail_at(uint64_t n) { left_ = n; }
    /// None fails.
    void work() { left_ = 0; }
    /// After fail_at(): whether it has come to that.
    [[nodiscard]] bool struck() const { return left_ == 0; }
    void* allocate(size_t size);
    void free(void* memory) noexcept;

    /// Bytes allocated now, and the most since forget_peak().
    [[nodiscard]] size_t bytes() const { return bytes_; }
    [[nodiscard]] size_t peak() const { return peak_; }
    void forget_peak() { peak_ = bytes_; }

  private:
    uint64_t left_ = 0;
    size_t bytes_ = 0;
    size_t peak_ = 0;
};
