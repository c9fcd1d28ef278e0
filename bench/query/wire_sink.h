// Where the bytes of an answer go: memory of one size that is written over and over, as the pool of
// the family is, and a count of what came.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "io/stream.h"

namespace bench {

class WireSink final : public io::OStream {
  public:
    void name(std::string& out) const override { out += "WireSink"; }
    [[nodiscard]] bool isReady() const override { return true; }
    size_t writeBegin(uint8_t*& out) override {
        out = area_.data();
        return area_.size();
    }
    void writeCommit(size_t count) override { bytes_ += count; }
    [[nodiscard]] bool hasPendingData() const override { return false; }
    void closeWrite() override {}

    [[nodiscard]] uint64_t bytes() const noexcept { return bytes_; }

  private:
    std::vector<uint8_t> area_ = std::vector<uint8_t>(64 << 10);
    uint64_t bytes_ = 0;
};

}  // namespace bench
