#include "mdb/dobj.h"

#include "error/exception.h"

namespace mdb {

BlockBuffer BlockPool::acquire() {
    error::check(block_size_ != 0, "Block buffer wanted before block size was found");
    if (idle_.empty()) {
        // Room for giving it back is made now, as release() must not fail.
        idle_.reserve(++made_);
        return BlockBuffer(this, new std::byte[block_size_]);
    }
    std::byte* bytes = idle_.back().release();
    idle_.pop_back();
    return BlockBuffer(this, bytes);
}

void BlockPool::release(std::byte* bytes) noexcept {
    idle_.emplace_back(bytes);
}

}  // namespace mdb
