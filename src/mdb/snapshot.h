// A copy of the whole database as it is at one moment, given out in small pieces while work on the
// database goes on.
//
//   made: checkpoint and flip, so that the file is the whole state
//     |
//     v            next(): blocks of the file, in order
//   running --,--- before_write(): bytes that weren't given out yet are kept before they change
//     |  |  <-'    next(): what was kept comes first
//     |  '-- everything given out --> complete
//     '-- too much kept, a read failed --> failed
//
// Once complete or failed it costs the database nothing any more. It knows nothing of where the
// pieces go; see snapshot_stream.h for that.
//
// Invariant: a block of the copy is in exactly one of three places: given out (below the cursor, or
// kept before and taken), kept here, or unchanged in the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "mdb/backing_store.h"

namespace mdb {

class Database;

class Snapshot final : private WriteObserver {
  public:
    enum class state_t { running, complete, failed };

    /// Most bytes that are kept for a copy which is taken more slowly than the database changes.
    static constexpr uint64_t kMostKept_bytes = 256ULL << 20;
    /// Greatest piece, if no block is larger: what one step may cost.
    static constexpr uint32_t kPiece_bytes = 64U << 10;

    /// Fixes the state that will be copied: all that is committed now. Costs a checkpoint. No
    /// transaction may be open. `database` must outlive this object. Throws error_internal when
    /// another snapshot of it is running, error_unsupported for blocks that are too large, and what
    /// a checkpoint throws.
    explicit Snapshot(Database& database, uint64_t most_kept_bytes = kMostKept_bytes);
    ~Snapshot() override;
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    /// Whole blocks of the copy. The bytes live until the next call of next().
    struct Piece {
        uint64_t offset = 0;
        std::span<const std::byte> bytes;
    };
    /// The next piece: what has to be given up soon, or else the next blocks of the file, one read
    /// of at most kPiece_bytes or one block. None when nothing is left and when the copy failed;
    /// never throws for a file that can't be read.
    [[nodiscard]] std::optional<Piece> next();

    [[nodiscard]] state_t state() const noexcept { return state_; }
    /// Why it failed, for people; empty if it didn't.
    [[nodiscard]] const std::string& failure() const noexcept { return failure_; }

    [[nodiscard]] uint32_t block_size() const noexcept { return store_.block_size(); }
    /// Bytes of the copy of the database file.
    [[nodiscard]] uint64_t file_length() const noexcept { return file_length_; }
    /// Bytes of the file of the journal that belongs to the copy, which is empty; 0 when the
    /// journal is a part of the database file and so of the copy.
    [[nodiscard]] uint32_t journal_length() const noexcept { return journal_length_; }
    /// Bytes kept at present.
    [[nodiscard]] uint64_t kept_bytes() const noexcept { return kept_bytes_; }

  private:
    /// Old bytes of some blocks that have changed in the file.
    struct Kept {
        uint64_t offset = 0;
        std::vector<std::byte> bytes;
    };

    void before_write(uint64_t offset, uint64_t length) override;
    void keep(uint32_t first, uint32_t count);
    [[nodiscard]] uint32_t run_of_unkept(uint32_t first, uint32_t end) const;
    [[nodiscard]] bool read(uint32_t first, uint32_t count, std::vector<std::byte>& bytes);
    void put_fresh_journal(uint64_t offset, std::span<std::byte> bytes) const;
    void end(state_t state);
    void fail(std::string text);

    BackingStore& store_;
    const uint64_t most_kept_bytes_;
    uint64_t file_length_ = 0;
    uint32_t block_count_ = 0;
    uint32_t blocks_per_piece_ = 1;
    uint32_t journal_length_ = 0;
    /// Where the journal lies in the file; empty for one in a file of its own.
    uint64_t journal_begin_ = 0;
    uint64_t journal_end_ = 0;

    state_t state_ = state_t::running;
    std::string failure_;
    /// All blocks below it were given out or kept.
    uint32_t cursor_ = 0;
    /// Of each block: its old bytes were kept, and maybe given out since.
    std::vector<bool> was_kept_;
    std::deque<Kept> kept_;
    uint64_t kept_bytes_ = 0;
    std::vector<std::byte> piece_;
};

}  // namespace mdb
