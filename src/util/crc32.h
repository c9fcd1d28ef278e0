// security::Crc32: the standard reflected CRC-32 (polynomial 0xEDB88320), the checksum of the
// journal. The running state is one word, so a copy of the object saves it and an assignment takes
// it back. The work is done by libdeflate; long updates run at many GB/s, and the call itself costs
// a few nanoseconds.
#pragma once

#include "util/hash.h"

namespace security {

class Crc32 final : public Hash {
  public:
    void reset() override { state_ = kInitialState; }
    [[nodiscard]] std::size_t digest_size() const override { return sizeof state_; }
    void update(std::size_t length, const void* data) override;
    void update_byte(uint8_t byte) override { update(1, &byte); }
    /// The value, most significant byte first.
    void final(uint8_t* digest) const override;

    /// Checksum of all bytes since reset(); "abc" gives 0x352441C2.
    [[nodiscard]] uint32_t value() const noexcept { return ~state_; }

  private:
    static constexpr uint32_t kInitialState = 0xFFFFFFFF;
    uint32_t state_ = kInitialState;
};

}  // namespace security
