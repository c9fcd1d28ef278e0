// security::Hash: what every checksum of a byte stream offers. The only one in use is
// security::Crc32.
#pragma once

#include <cstddef>
#include <cstdint>

namespace security {

class Hash {
  public:
    virtual ~Hash() = default;

    /// Starts a new stream.
    virtual void reset() = 0;
    /// Bytes that final() writes.
    [[nodiscard]] virtual std::size_t digest_size() const = 0;
    /// Takes in `length` bytes. Any split of a stream over calls gives the same digest.
    virtual void update(std::size_t length, const void* data) = 0;
    virtual void update_byte(uint8_t byte) = 0;
    /// Writes digest_size() bytes at `digest`. The stream may go on afterwards.
    virtual void final(uint8_t* digest) const = 0;

  protected:
    Hash() = default;
    Hash(const Hash&) = default;
    Hash& operator=(const Hash&) = default;
};

}  // namespace security
