// What one peer sent of a record that is not whole yet. For a reader that must not wait for the
// rest: it reads from the copies as if they were the stream, is told that there is no more, and
// begins anew when something more has arrived.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "io/stream.h"

namespace queues::detail {

/// Never blocks: where the copies end, readBegin() throws io::ENotReady.
class RecordBuffer final : public io::IStream {
  public:
    /// More of one record is nobody's record.
    static constexpr std::size_t kMost_bytes = 64U << 20;

    /// Copies the next message of `from`, which must be ready, behind what is here, and gives it
    /// back to its sender. io::EEndOfStream at the end of `from`.
    void take_message(io::IStream& from);
    /// The next read begins with the first byte again.
    void rewind() { position_ = 0; }
    void clear();
    /// False if more than kMost_bytes are here.
    [[nodiscard]] bool is_bounded() const { return bytes_.size() <= kMost_bytes; }
    [[nodiscard]] bool empty() const { return bytes_.empty(); }
    /// The 32-bit number `index` of the record; none if it is not there yet.
    [[nodiscard]] std::optional<std::uint32_t> word(std::size_t index) const;
    /// True when a read has come to the last byte.
    [[nodiscard]] bool is_read() const { return position_ == bytes_.size(); }

    void name(std::string& out) const override { out += "RecordBuffer"; }
    /// Always: a read that finds nothing says so.
    [[nodiscard]] bool isReady() const override { return true; }
    std::size_t readBegin(const std::uint8_t*& out) override;
    void readCommit(std::size_t count) override { position_ += count; }
    void closeRead() override {}

  private:
    std::vector<std::uint8_t> bytes_;
    std::size_t position_ = 0;
};

}  // namespace queues::detail
