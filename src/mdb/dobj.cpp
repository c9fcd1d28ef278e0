#include "mdb/dobj.h"

#include <algorithm>

#include "error/exception.h"

namespace mdb {

namespace {

// The sanitizer is to see each buffer by itself.
#ifdef __SANITIZE_ADDRESS__
constexpr size_t kPiece_bytes = 1;
#else
constexpr size_t kPiece_bytes = platform::kHugePage_bytes;
#endif

}  // namespace

BlockBuffer BlockPool::acquire() {
    error::check(block_size_ != 0, "Block buffer wanted before block size was found");
    if (idle_.empty()) make_more();
    std::byte* bytes = idle_.back();
    idle_.pop_back();
    return BlockBuffer(this, bytes);
}

void BlockPool::make_more() {
    const size_t count = std::max<size_t>(kPiece_bytes / block_size_, 1);
    // Room for giving all of them back is made now, as release() must not fail.
    idle_.reserve(made_ + count);
    pieces_.push_back(platform::allocate_huge_pages(count * block_size_));
    made_ += count;
    for (size_t i = count; i > 0; --i)
        idle_.push_back(pieces_.back().get() + (i - 1) * block_size_);
}

}  // namespace mdb
