// io::MemoryStream: what is written to it can be read from it, in one process.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "io/exception.h"
#include "io/stream.h"

namespace io {

/// Always ready; the stream ends where nothing more has been written.
class MemoryStream final : public IStream, public OStream {
  public:
    MemoryStream() = default;
    explicit MemoryStream(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}

    void name(std::string& out) const override { out += "MemoryStream"; }
    [[nodiscard]] bool isReady() const override { return true; }
    size_t readBegin(const std::uint8_t*& out) override {
        if (position_ == bytes_.size()) throw EEndOfStream("MemoryStream");
        out = bytes_.data() + position_;
        return bytes_.size() - position_;
    }
    void readCommit(size_t count) override { position_ += count; }
    void closeRead() override {}
    size_t writeBegin(std::uint8_t*& out) override {
        area_.resize(kArea_bytes);
        out = area_.data();
        return area_.size();
    }
    void writeCommit(size_t count) override {
        bytes_.insert(bytes_.end(), area_.begin(),
                      area_.begin() + static_cast<std::ptrdiff_t>(count));
    }
    [[nodiscard]] bool hasPendingData() const override { return false; }
    void closeWrite() override {}

  private:
    static constexpr size_t kArea_bytes = 4096;

    std::vector<std::uint8_t> bytes_;
    std::vector<std::uint8_t> area_;
    size_t position_ = 0;
};

}  // namespace io
