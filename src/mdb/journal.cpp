#include "mdb/journal.h"

#include <array>
#include <cstring>
#include <limits>

#include "log/log.h"
#include "mdb/backing_store.h"
#include "mdb/block_cache.h"
#include "mdb/detail/journal_metrics.h"
#include "mdb/errors.h"
#include "mdb/journal_layout.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace mdb {

namespace layout = journal_layout;
namespace metrics = detail::journal_metrics;

namespace {

const logging::Logger logger{"objectio"};

constexpr uint64_t kMicrosecondsPerSecond = 1'000'000;
/// How much of the journal collects before its way to the disk begins, in whole pages.
constexpr uint32_t kWritebackStep = 1U << 20;
constexpr uint32_t kWritebackAlignment = 4096;

}  // namespace

Journal::Journal(platform::FileSystem& files, BackingStore& store, const platform::Clock& clock)
    : files_(files), store_(store), clock_(clock), writer_(store) {}

void Journal::attach(BlockCache& cache, TransactionObserver& observer) {
    cache_ = &cache;
    observer_ = &observer;
}

void Journal::journal_open(const std::string& path, uint64_t offset, uint64_t length,
                           bool exclusive) {
    uint64_t file_length = 0;
    try {
        if (exclusive) own_file_ = files_.open(path);
        file_ = exclusive ? own_file_.get() : &store_.file();
        if (exclusive && !file_->try_lock())
            throw error_open(fmt::format(
                "Cannot open journal in \"{}\": it is in use by another process", path));
        file_length = file_->size();
    } catch (const error::ESystemError& failure) {
        throw error_open(
            fmt::format("Cannot open journal in \"{}\": {}", path, std::strerror(failure.code())));
    }
    if (length == 0) {
        length = file_length < offset ? 0 : file_length - offset;
        logger.info("Will use {} as journal length", length);
    }
    if (length > std::numeric_limits<uint32_t>::max())
        throw error_range(
            fmt::format("Journal of {} bytes is longer than 32 bits can tell", length));
    if (offset > file_length || length > file_length - offset)
        throw error_range(
            fmt::format("Journal of {} bytes from {} lies outside its file of {} bytes", length,
                        offset, file_length));
    try {
        mapping_ = files_.map(*file_, offset, static_cast<size_t>(length));
    } catch (const error::ESystemError& failure) {
        throw error_io(fmt::format("Cannot memory map journal: {}", std::strerror(failure.code())));
    }
    journal_base_ = offset;
    journal_length_ = static_cast<uint32_t>(length);
    logger.info("Journal: [{} : {})", offset, offset + length);
}

uint32_t Journal::limit() const noexcept {
    return layout::half_limit(journal_length_, current_half());
}

uint64_t Journal::current_second() const {
    return clock_.monotonic_us() / kMicrosecondsPerSecond;
}

void Journal::check_state() const {
    const uint32_t start = layout::half_start(journal_length_, current_half());
    error::check(committed_end_ >= start && write_pos() <= limit(),
                 "Journal position {} lies outside of its half", write_pos());
    error::check(stack_.empty() ? transaction_fill_ == 0 && open_updates_.empty()
                                : transaction_fill_ >= layout::kBeginSize,
                 "Journal holds {} bytes of a transaction at depth {}", transaction_fill_,
                 stack_.size());
    error::check(n_in_file_ <= n_committed_ && (n_in_file_ < n_committed_ || unwritten_.empty()),
                 "Journal has {} of {} transactions in the file", n_in_file_, n_committed_);
}

void Journal::check_usable() const {
    if (failed()) throw error::EFatal(fmt::format("The store has failed before: {}", failure_));
}

void Journal::write_journal(const void* data, size_t length, uint32_t position, bool durable) {
    if (position > journal_length_ || length > journal_length_ - position)
        throw error_internal(fmt::format("Writing in wrong half of journal (pos={})", position));
    try {
        if (durable) {
            const meter::TimingScope timing{metrics::sync, clock_};
            file_->write_durable_at(data, length, journal_base_ + position);
        } else {
            undurable_ = true;
            file_->write_at(data, length, journal_base_ + position);
        }
    } catch (const error::ESystemError& failure) {
        throw error_io(
            fmt::format("Error when writing journal: {}", std::strerror(failure.code())));
    }
}

/// Asynchronous commits fill a half faster than a disk takes it. Without this all of it would wait
/// for the sync at the flip, with the disk idle until then.
void Journal::start_writeback(uint32_t end) {
    // The page that the next commit goes to would be written twice.
    const uint32_t whole = end - end % kWritebackAlignment;
    if (whole < writeback_begun_ || whole - writeback_begun_ < kWritebackStep) return;
    file_->start_writeback(journal_base_ + writeback_begun_, whole - writeback_begun_);
    writeback_begun_ = whole;
}

void Journal::flush_journal() {
    if (!undurable_) return;
    sync_journal();
}

void Journal::sync_journal() {
    try {
        const meter::TimingScope timing{metrics::sync, clock_};
        file_->sync_data();
    } catch (const error::ESystemError& failure) {
        throw error_io(
            fmt::format("Error when syncing journal: {}", std::strerror(failure.code())));
    }
    undurable_ = false;
}

void Journal::write_committed_to_file(bool sync_follows) {
    // The file may lag behind the journal but never lead it: a power cut between two writes would
    // leave half of a transaction that no replay completes.
    error::check(!undurable_, "Commits were to reach the file before the journal was durable");
    if (!unwritten_.empty()) {
        file_unsynced_ = true;
        writer_.write(unwritten_, view(), cache_,
                      {.may_extend = false, .sync_follows = sync_follows});
        for (const detail::BlockUpdates::Piece& piece : unwritten_.pieces())
            written_blocks_.at(piece.block) = 0;
        unwritten_.clear();
    }
    n_in_file_ = n_committed_;
}

void Journal::bring_to_file() {
    flush_journal();
    write_committed_to_file(true);
    if (!file_unsynced_) return;
    store_.sync_store();
    file_unsynced_ = false;
}

bool Journal::claims(uint32_t block) const {
    return written_blocks_.find(block) != detail::BlockHeads::kNone || unwritten_.has(block) ||
           open_updates_.has(block);
}

void Journal::make_commits_durable() {
    guarded([this] { flush_journal(); });
}

void Journal::full_checkpoint() {
    check_no_transaction();
    guarded([this] {
        file_unsynced_ = true;
        bring_to_file();
    });
}

void Journal::checkpoint_and_flip() {
    full_checkpoint();
    flip(false);
}

void Journal::journal_checkpoint() {
    check_no_transaction();
    check_usable();
    const uint64_t half = journal_length_ / 2;
    const uint64_t free = free_space();
    logger.debug("Journal free: {}, fill percentage: {}", free, (half - free) * 100 / half);
    if (free * 100 >= half * 25) {
        const uint64_t second = current_second();
        if (second <= last_sync_) return;
        last_sync_ = second;
        guarded([this] {
            flush_journal();
            write_committed_to_file(false);
        });
        return;
    }
    logger.info("Checkpoint initiated because of semi-full log");
    flip(false);
}

void Journal::flip(bool redirect) {
    if (transaction_fill_ != 0)
        throw error_internal("Journal flip attempted with updates of an open transaction");
    guarded([this, redirect] {
        const int half = next_index_;
        const uint32_t start = layout::half_start(journal_length_, half);
        // Before the new index entry can be on the disk, nothing in the old half may be needed any
        // more.
        bring_to_file();
        if (redirect) write_redirection(start);
        n_committed_ = n_in_file_ = 0;
        ++current_serial_;
        write_index_entry(half, start);
        // A transaction of the new half that were durable while its index entry isn't could be
        // taken, after a crash, for one of the next filling, which would get the same serial.
        flush_journal();
        // The old half is history: the new entry is durable, and no replay begins there any more.
        written_blocks_.clear();
        next_index_ = 1 - half;
        committed_end_ = writeback_begun_ = start;
    });
    metrics::flips.increment();
    check_state();
    logger.debug("Journal flipped. Now using serial {}, index {}, jpos {}", current_serial_,
                 current_half(), committed_end_);
}

void Journal::write_redirection(uint32_t target) {
    std::array<std::byte, layout::kRedirectSize> entry{};
    util::store_be32(entry.data(), layout::kRedirect);
    util::store_be32(entry.data() + layout::redirect_target, target);
    write_journal(entry.data(), entry.size(), committed_end_, false);
}

void Journal::write_index_entry(int half, uint32_t start) {
    if (half != 0 && half != 1) throw error_generic("Invalid journal index");
    std::array<std::byte, layout::kIndexEntrySize> entry{};
    util::store_be64(entry.data() + layout::index_serial, current_serial_);
    util::store_be32(entry.data() + layout::index_position, start);
    security::Crc32 crc;
    crc.update(layout::index_crc, entry.data());
    util::store_be32(entry.data() + layout::index_crc, crc.value());
    write_journal(entry.data(), entry.size(),
                  layout::index_entries + static_cast<uint32_t>(half) * layout::kIndexEntrySize,
                  false);
}

void Journal::check_no_transaction() const {
    if (transaction_active()) throw error_internal("Checkpoint attempted with an open transaction");
}

}  // namespace mdb
