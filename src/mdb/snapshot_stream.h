// A Snapshot as a stream of bytes (snapshot_layout.h), made record by record as whoever carries it
// has room. The other end is snapshot_receiver.h.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "mdb/snapshot.h"
#include "util/crc32.h"

namespace mdb {

class SnapshotStream {
  public:
    /// Begins a copy; see Snapshot for cost and exceptions.
    explicit SnapshotStream(Database& database,
                            uint64_t most_kept_bytes = Snapshot::kMostKept_bytes)
        : snapshot_(database, most_kept_bytes) {}

    /// Appends the next record of the stream, at most one piece of the copy, to `out`. A copy that
    /// can't be completed ends with a record that says why.
    void append_next(std::vector<std::byte>& out);
    /// True once the last record was given.
    [[nodiscard]] bool ended() const noexcept { return ended_; }
    [[nodiscard]] const Snapshot& snapshot() const noexcept { return snapshot_; }

    /// A record that ends a stream, or is all of it, because there will be no copy.
    static void append_failure(std::string_view text, std::vector<std::byte>& out);

  private:
    void append_begin(std::vector<std::byte>& out);
    void append_piece(const Snapshot::Piece& piece, std::vector<std::byte>& out);
    void append_end(std::vector<std::byte>& out);

    Snapshot snapshot_;
    security::Crc32 crc_;
    uint64_t total_ = 0;
    bool begun_ = false;
    bool ended_ = false;
};

}  // namespace mdb
