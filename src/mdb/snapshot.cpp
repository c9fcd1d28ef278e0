#include "mdb/snapshot.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "mdb/database.h"
#include "mdb/detail/file_pair.h"
#include "mdb/snapshot_layout.h"

namespace mdb {

Snapshot::Snapshot(Database& database, uint64_t most_kept_bytes)
    : store_(database.store()), most_kept_bytes_(most_kept_bytes) {
    if (store_.observed()) throw error_internal("Another copy of the database is being taken");
    if (store_.block_size() > snapshot_layout::kMostBlocks)
        throw error_unsupported(
            fmt::format("A database with blocks of {} bytes can't be copied", store_.block_size()));
    // From here on the journal is needed for nothing that is in the copy.
    database.journal().checkpoint_and_flip();
    block_count_ = static_cast<uint32_t>(std::min<uint64_t>(
        store_.file_length() / store_.block_size(), std::numeric_limits<uint32_t>::max()));
    file_length_ = store_.block_offset(block_count_);
    blocks_per_piece_ = std::max<uint32_t>(kPiece_bytes / store_.block_size(), 1);
    const Header& header = database.header();
    if (header.journal_type() == header_layout::kJournalInFile) {
        journal_begin_ = store_.block_offset(header.journal_first_block());
        journal_end_ = journal_begin_ + database.journal().journal_length();
    } else {
        journal_length_ = database.journal().journal_length();
    }
    was_kept_.resize(block_count_);
    store_.set_write_observer(this);
}

Snapshot::~Snapshot() {
    if (state_ == state_t::running) store_.set_write_observer(nullptr);
}

void Snapshot::end(state_t state) {
    state_ = state;
    store_.set_write_observer(nullptr);
    kept_.clear();
    kept_bytes_ = 0;
}

void Snapshot::fail(std::string text) {
    failure_ = std::move(text);
    end(state_t::failed);
}

std::optional<Snapshot::Piece> Snapshot::next() {
    if (state_ != state_t::running) return std::nullopt;
    if (!kept_.empty()) {
        const uint64_t offset = kept_.front().offset;
        piece_ = std::move(kept_.front().bytes);
        kept_.pop_front();
        kept_bytes_ -= piece_.size();
        return Piece{offset, piece_};
    }
    while (cursor_ < block_count_ && was_kept_[cursor_]) ++cursor_;
    if (cursor_ == block_count_) {
        end(state_t::complete);
        return std::nullopt;
    }
    const uint32_t first = cursor_;
    const uint32_t count =
        run_of_unkept(first, first + std::min(blocks_per_piece_, block_count_ - first));
    if (!read(first, count, piece_)) return std::nullopt;
    cursor_ += count;
    return Piece{store_.block_offset(first), piece_};
}

/// Number of blocks from `first` on, below `end`, that weren't kept.
uint32_t Snapshot::run_of_unkept(uint32_t first, uint32_t end) const {
    uint32_t block = first;
    while (block < end && !was_kept_[block]) ++block;
    return block - first;
}

void Snapshot::before_write(uint64_t offset, uint64_t length) {
    if (length == 0 || offset >= file_length_) return;
    const uint64_t last = std::min(offset + length, file_length_) - 1;
    const uint32_t end = store_.offset_block(last) + 1;
    uint32_t block = std::max(store_.offset_block(offset), cursor_);
    while (block < end && state_ == state_t::running) {
        if (was_kept_[block]) {
            ++block;
            continue;
        }
        const uint32_t count =
            run_of_unkept(block, block + std::min(blocks_per_piece_, end - block));
        keep(block, count);
        block += count;
    }
}

void Snapshot::keep(uint32_t first, uint32_t count) {
    if (kept_bytes_ + uint64_t{count} * store_.block_size() > most_kept_bytes_)
        return fail(fmt::format(
            "The copy was taken too slowly: {} MiB of it changed before they could be given out",
            most_kept_bytes_ >> 20));
    Kept kept{store_.block_offset(first), {}};
    if (!read(first, count, kept.bytes)) return;
    kept_bytes_ += kept.bytes.size();
    kept_.push_back(std::move(kept));
    std::fill_n(was_kept_.begin() + first, count, true);
}

bool Snapshot::read(uint32_t first, uint32_t count, std::vector<std::byte>& bytes) {
    bytes.resize(size_t{count} * store_.block_size());
    try {
        store_.block_read(bytes.data(), first, count);
    } catch (const error_generic& failure) {
        fail(fmt::format("The database can't be read for the copy: {}", failure.text()));
        return false;
    }
    put_fresh_journal(store_.block_offset(first), bytes);
    return true;
}

/// A journal in the file goes on being written behind the store's back. What the copy needs of it
/// is that it holds nothing.
void Snapshot::put_fresh_journal(uint64_t offset, std::span<std::byte> bytes) const {
    const uint64_t begin = std::max(offset, journal_begin_);
    const uint64_t end = std::min(offset + bytes.size(), journal_end_);
    if (begin >= end) return;
    const auto part =
        bytes.subspan(static_cast<size_t>(begin - offset), static_cast<size_t>(end - begin));
    std::fill(part.begin(), part.end(), std::byte{0});
    const auto head = detail::fresh_journal_head();
    const uint64_t skip = begin - journal_begin_;
    if (skip < head.size())
        std::memcpy(part.data(), head.data() + skip,
                    std::min(part.size(), head.size() - static_cast<size_t>(skip)));
}

}  // namespace mdb
