#include "util/crc32.h"

#include <libdeflate.h>

#include "util/byte_order.h"

namespace security {

void Crc32::update(std::size_t length, const void* data) {
    // libdeflate takes and gives the finished checksum, the complement of the state. A null pointer
    // would mean "start".
    if (length != 0) state_ = ~libdeflate_crc32(~state_, data, length);
}

void Crc32::final(uint8_t* digest) const {
    util::store_be32(digest, value());
}

}  // namespace security
