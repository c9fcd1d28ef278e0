// Byte streams in memory whose areas are as small as a test wants them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "io/exception.h"
#include "io/stream.h"

namespace support {

using Bytes = std::vector<std::uint8_t>;

/// Collects what is written, in areas of one size, and the size of each commit.
class MemoryOStream final : public io::OStream {
  public:
    explicit MemoryOStream(std::size_t area_size = 4096) : area_(area_size) {}

    void name(std::string& out) const override { out += "MemoryOStream"; }
    [[nodiscard]] bool isReady() const override { return true; }
    size_t writeBegin(std::uint8_t*& out) override {
        out = area_.data();
        return area_.size();
    }
    void writeCommit(size_t count) override {
        bytes.insert(bytes.end(), area_.begin(),
                     area_.begin() + static_cast<std::ptrdiff_t>(count));
        blocks.push_back(count);
    }
    [[nodiscard]] bool hasPendingData() const override { return false; }
    void closeWrite() override {}

    Bytes bytes;
    std::vector<std::size_t> blocks;

  private:
    Bytes area_;
};

/// Hands out bytes in areas that end at each multiple of `area_size`; then the stream ends.
class MemoryIStream final : public io::IStream {
  public:
    explicit MemoryIStream(Bytes bytes, std::size_t area_size = 4096)
        : bytes_(std::move(bytes)), area_size_(area_size) {}

    void name(std::string& out) const override { out += "MemoryIStream"; }
    [[nodiscard]] bool isReady() const override { return true; }
    size_t readBegin(const std::uint8_t*& out) override {
        if (at_end()) throw io::EEndOfStream("MemoryIStream");
        const std::size_t end =
            std::min(bytes_.size(), position_ + area_size_ - position_ % area_size_);
        // A copy of its own, so that a read beyond the area is seen by the sanitizer.
        area_ = Bytes(bytes_.begin() + static_cast<std::ptrdiff_t>(position_),
                      bytes_.begin() + static_cast<std::ptrdiff_t>(end));
        out = area_.data();
        return area_.size();
    }
    void readCommit(size_t count) override { position_ += count; }
    void closeRead() override {}

    [[nodiscard]] bool at_end() const { return position_ == bytes_.size(); }

  private:
    Bytes bytes_;
    Bytes area_;
    std::size_t area_size_;
    std::size_t position_ = 0;
};

}  // namespace support
