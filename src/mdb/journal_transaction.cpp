#include <algorithm>
#include <cstring>
#include <limits>

#include "log/log.h"
#include "mdb/backing_store.h"
#include "mdb/block_cache.h"
#include "mdb/detail/journal_metrics.h"
#include "mdb/errors.h"
#include "mdb/journal.h"
#include "mdb/journal_layout.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace mdb {

namespace layout = journal_layout;
namespace metrics = detail::journal_metrics;

namespace {

const logging::Logger logger{"objectio"};

constexpr uint32_t kSmallestTransactionBuffer = 64 * 1024;

}  // namespace

void Journal::transaction_begin() {
    check_usable();
    const bool outermost = stack_.empty();
    if (outermost) begin_outermost();
    // All that may run out of memory comes before the first change: a transaction that could not be
    // begun has nobody who ends it.
    std::byte* entry = outermost ? reserve_entry(layout::kBeginSize) : nullptr;
    stack_.reserve(stack_.size() + 1);
    observer_->transaction_began();
    stack_.push_back({transaction_fill_, open_updates_.count(), touched_.size()});
    if (!outermost) return;

    util::store_be32(entry, layout::kBegin);
    std::memcpy(entry + 4, view() + committed_end_ + 4, 4);
    util::store_be64(entry + layout::begin_serial, current_serial_);
    transaction_fill_ = layout::kBeginSize;
    metrics::bytes.increment(layout::kBeginSize);
}

void Journal::begin_outermost() {
    check_state();
    journal_checkpoint();
    if (free_space() >= layout::kBeginSize) return;
    logger.warning("Flipping journal at beginning of transaction");
    flip(true);
    if (free_space() < layout::kBeginSize)
        throw error_internal("After journal flip; no space for transbeg.");
}

void Journal::transaction_touch(NodeId id) {
    if (transaction_active()) touched_.push_back(id);
}

std::byte* Journal::reserve_entry(uint64_t size) {
    const uint64_t needed = transaction_fill_ + size;
    if (needed > transaction_capacity_) {
        const uint64_t capacity = std::max<uint64_t>(
            {needed, uint64_t{transaction_capacity_} * 2, kSmallestTransactionBuffer});
        auto larger = std::make_unique_for_overwrite<std::byte[]>(static_cast<size_t>(capacity));
        if (transaction_fill_ > 0) std::memcpy(larger.get(), transaction_.get(), transaction_fill_);
        transaction_ = std::move(larger);
        transaction_capacity_ = static_cast<uint32_t>(capacity);
    }
    return transaction_.get() + transaction_fill_;
}

void Journal::journal_update(const void* data, size_t length, uint64_t file_offset) {
    if (!transaction_active()) throw error_internal("Update outside of transaction attempted");
    // An end entry must always fit behind, as a transaction's updates and its end lie in one half.
    if (length > journal_length_ || layout::update_size(length) + layout::kEndSize > free_space())
        throw error_transact("Transaction log full");
    const uint64_t last_offset = (uint64_t{1} << 32) * store_.block_size();
    if (file_offset > last_offset || length > last_offset - file_offset)
        throw error_range(fmt::format("Update at {} lies outside of any block", file_offset));

    const auto size = static_cast<uint32_t>(layout::update_size(length));
    const uint32_t position = transaction_fill_;
    std::byte* entry = reserve_entry(size);
    util::store_be32(entry, layout::kUpdate);
    util::store_be32(entry + layout::update_length, static_cast<uint32_t>(length));
    util::store_be64(entry + layout::update_offset, file_offset);
    util::store_be32(entry + layout::update_zero, 0);
    std::memcpy(entry + layout::update_data, data, length);
    const auto fill = static_cast<uint32_t>(size - layout::update_data - length);
    if (fill != 0)
        std::memcpy(entry + size - fill, view() + committed_end_ + position + size - fill, fill);
    transaction_fill_ += size;
    metrics::bytes.increment(size);
    add_pieces(open_updates_, file_offset, static_cast<uint32_t>(length),
               position + layout::update_data, stack_.back().update_count);
}

void Journal::add_pieces(detail::BlockUpdates& updates, uint64_t file_offset, uint32_t length,
                         uint32_t source, size_t keep) const {
    while (length > 0) {
        const uint32_t block = store_.offset_block(file_offset);
        const auto start = static_cast<uint32_t>(file_offset - store_.block_offset(block));
        const uint32_t part = std::min(length, store_.block_size() - start);
        updates.add(block, start, part, source, keep);
        file_offset += part;
        source += part;
        length -= part;
    }
}

void Journal::transaction_end(bool asynchronous) {
    if (!transaction_active()) throw error_internal("End of non-existing transaction");
    check_usable();
    if (stack_.size() > 1) {
        error::check(asynchronous, "Syncronous nested transactions not supported");
        // The objects it touched and the marks it changed stay on the flat lists, now as the outer
        // one's.
        stack_.pop_back();
        observer_->transaction_merged();
        return;
    }
    stack_.pop_back();
    touched_.clear();
    if (transaction_fill_ == layout::kBeginSize) {
        transaction_fill_ = 0;
        observer_->transaction_merged();
        // Who changed nothing, as all was as wanted already, may rely on that as much as others.
        if (flush_is_due(asynchronous)) make_commits_durable();
        return;
    }
    guarded([this, asynchronous] { commit(asynchronous); });
}

void Journal::commit(bool asynchronous) {
    const bool flush = flush_is_due(asynchronous);
    try {
        write_transaction(flush);
    } catch (const error_generic&) {
        // Only the next start can tell whether it is in the journal. Readers see what was before
        // it.
        transaction_fill_ = 0;
        open_updates_.clear();
        observer_->transaction_aborted();
        throw;
    }
    observer_->transaction_committed();
    publish_transaction();
    if (!flush) return;
    last_sync_ = current_second();
    write_committed_to_file(false);
}

bool Journal::flush_is_due(bool asynchronous) const {
    return !asynchronous || current_second() > last_sync_;
}

void Journal::write_transaction(bool flush) {
    // A mark in the journal must not outlive the block that it marks: replay would find the file
    // too short.
    if (store_.grown()) store_.sync_store();
    security::Crc32 crc;
    crc.update(transaction_fill_, transaction_.get());
    std::byte* entry = reserve_entry(layout::kEndSize);
    util::store_be32(entry, layout::kEnd);
    util::store_be32(entry + layout::end_crc, crc.value());
    const uint32_t length = transaction_fill_ + layout::kEndSize;
    error::check(committed_end_ + length <= limit(), "No room for the end of a transaction at {}",
                 committed_end_);
    // One durable write does where nothing before it waits to become durable; otherwise all of it
    // is synced, as a commit must not become durable ahead of an earlier one.
    const bool at_once = flush && !undurable_;
    write_journal(transaction_.get(), length, committed_end_, at_once);
    if (flush)
        flush_journal();
    else
        start_writeback(committed_end_ + length);
    metrics::bytes.increment(layout::kEndSize);
    metrics::commits.increment();
}

void Journal::publish_transaction() {
    const uint32_t begin = committed_end_;
    committed_end_ += transaction_fill_ + layout::kEndSize;
    transaction_fill_ = 0;
    ++n_committed_;
    for (const detail::BlockUpdates::Piece& piece : open_updates_.pieces()) {
        if (piece.length == 0) continue;
        cache_->apply_update(piece.block, {transaction_.get() + piece.source, piece.length},
                             store_.block_offset(piece.block) + piece.start);
        unwritten_.add(piece.block, piece.start, piece.length, begin + piece.source, 0);
    }
    open_updates_.clear();
}

void Journal::transaction_abort() {
    if (!transaction_active()) throw error_internal("Abort of non-existing transaction");
    metrics::aborts.increment();
    const Record record = stack_.back();
    stack_.pop_back();
    transaction_fill_ = record.fill;
    open_updates_.truncate(record.update_count);
    const auto first = touched_.begin() + static_cast<std::ptrdiff_t>(record.touched_count);
    const std::set<NodeId> objects(first, touched_.end());
    touched_.erase(first, touched_.end());
    observer_->transaction_aborted();
    if (abort_hook_) abort_hook_(objects);
}

void Journal::overlay(const detail::BlockUpdates& updates, const std::byte* source,
                      std::byte* buffer, size_t length, uint64_t file_offset) const {
    if (length == 0 || updates.empty()) return;
    const uint32_t last = store_.offset_block(file_offset + length - 1);
    for (uint64_t block = store_.offset_block(file_offset); block <= last; ++block) {
        const uint64_t base = store_.block_offset(static_cast<uint32_t>(block));
        updates.for_block(static_cast<uint32_t>(block), [&](const detail::BlockUpdates::Piece&
                                                                piece) {
            const uint64_t start = base + piece.start;
            if (start >= file_offset + length || start + piece.length <= file_offset) return;
            copy_overlap(buffer, length, file_offset, {source + piece.source, piece.length}, start);
        });
    }
}

void Journal::overlay_open_transaction(std::byte* buffer, size_t length,
                                       uint64_t file_offset) const {
    overlay(open_updates_, transaction_.get(), buffer, length, file_offset);
}

void Journal::overlay_unwritten(std::byte* buffer, size_t length, uint64_t file_offset) const {
    overlay(unwritten_, view(), buffer, length, file_offset);
}

Transaction::~Transaction() {
    if (journal_ == nullptr) return;
    try {
        journal_->transaction_abort();
    } catch (const error::Exception& failure) {
        logger.critical("Abort of a transaction failed: {}", failure.text());
        journal_->failure_ = failure.text();
    }
}

}  // namespace mdb
