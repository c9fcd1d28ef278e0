// The journal's start: which half counts, what of it is whole, and bringing that to the file.
#include <array>
#include <limits>

#include "log/log.h"
#include "mdb/backing_store.h"
#include "mdb/detail/journal_entries.h"
#include "mdb/errors.h"
#include "mdb/journal.h"
#include "mdb/journal_layout.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace mdb {

namespace layout = journal_layout;

namespace {

const logging::Logger logger{"objectio"};

/// An index entry as it stands in the journal.
struct IndexEntry {
    bool valid = false;
    uint64_t serial = 0;
    uint32_t position = 0;
};

IndexEntry read_index_entry(std::span<const std::byte> journal, uint32_t number) {
    const std::byte* at = journal.data() + layout::index_entries + number * layout::kIndexEntrySize;
    security::Crc32 crc;
    crc.update(layout::index_crc, at);
    return {crc.value() == util::load_be32(at + layout::index_crc),
            util::load_be64(at + layout::index_serial),
            util::load_be32(at + layout::index_position)};
}

/// Number of the entry at which the log begins, or -1.
int pick_index(const std::array<IndexEntry, 2>& entries) {
    const uint64_t first_serial = entries[0].valid ? entries[0].serial : 0;
    const bool second_wins =
        entries[1].valid && (entries[1].serial > first_serial ||
                             (entries[1].serial == first_serial && entries[0].position == 0));
    return second_wins ? 1 : entries[0].valid ? 0 : -1;
}

/// A journal that lost its end would seem to hold less than was committed.
/// A log that is to be replayed from beyond the end is the replay's own affair.
void check_not_shortened(const std::array<IndexEntry, 2>& entries, int picked, uint32_t length) {
    for (int number = 0; number < 2; ++number) {
        const IndexEntry& entry = entries[static_cast<size_t>(number)];
        const bool readable = uint64_t{entry.position} + sizeof(uint32_t) <= length;
        if (entry.valid && (readable || number != picked) &&
            entry.position > layout::half_start(length, 1))
            throw error_need_repair(fmt::format(
                "Journal was longer once: of its {} bytes the second half begins at {}, "
                "but an index entry says {}",
                length, layout::half_start(length, 1), entry.position));
    }
}

/// Position behind the end entry of the transaction at `position`, or 0 if it isn't whole.
uint32_t whole_transaction(std::span<const std::byte> journal, uint32_t position) {
    uint32_t end = position + layout::kBeginSize;
    for (detail::UpdateEntry update; detail::read_update(journal, end, update);) end = update.end;
    if (detail::entry_word(journal, end) != layout::kEnd ||
        journal.size() - end < layout::kEndSize) {
        logger.info("End of valid update entries in journal.");
        logger.info("End of valid transaction end entries in journal.");
        return 0;
    }
    security::Crc32 crc;
    crc.update(end - position, journal.data() + position);
    if (crc.value() != util::load_be32(journal.data() + end + layout::end_crc)) {
        logger.info("Invalid CRC in transaction - no more valid entries.");
        return 0;
    }
    return end + layout::kEndSize;
}

/// How far the serial of what a half still holds may be ahead; more is no serial but damage.
constexpr uint64_t kGreatestLead = uint64_t{1} << 32;

/// A count of fillings never comes near this, and none may wrap: the log with the smaller serial
/// would be taken for the older one.
constexpr uint64_t kGreatestSerial = std::numeric_limits<uint64_t>::max() / 2;

/// The serial that the next filling of `half` must be above, `current` being that of the log. An
/// index entry that was damaged takes its half out of the replay, but the transactions are still
/// there: under their own serial they would come back at a later start, behind newer ones. Where
/// the entry is `sound` the half holds nothing newer than it. Otherwise the whole half is looked
/// through, as its first transactions may be damaged as well; what only looks like one costs a gap
/// in the serials.
uint64_t serial_to_pass(std::span<const std::byte> journal, int half, bool sound,
                        uint64_t current) {
    const auto length = static_cast<uint32_t>(journal.size());
    const uint32_t start = layout::half_start(length, half);
    const uint32_t limit = layout::half_limit(length, half);
    uint64_t result = current;
    for (uint32_t at = start; limit - at >= layout::kBeginSize; at += layout::kAlignment) {
        if (detail::entry_word(journal, at) == layout::kBegin) {
            const uint64_t left = util::load_be64(journal.data() + at + layout::begin_serial);
            if (left > result && left - current < kGreatestLead) result = left;
        }
        if (sound) break;
    }
    return result;
}

}  // namespace

void Journal::journal_start(const std::function<void()>& before_writing) {
    if (mapping_ == nullptr) throw error_internal("No journal mapped");
    if (store_.file_length() == 0) throw error_internal("Invalid backing store length");
    error::check(cache_ != nullptr && observer_ != nullptr,
                 "Journal started before it was attached");
    const std::span<const std::byte> journal{view(), journal_length_};
    if (journal.size() < layout::kFirstHalf ||
        util::load_be32(view() + layout::magic) != layout::kMagic)
        throw error_fubar("Journal does not start with a journal header");
    const uint32_t version = util::load_be32(view() + layout::version);
    if (version != layout::kVersion)
        throw error_unsupported(fmt::format(
            "Journal version {} is unsupported - please upgrade Tarmik first", version));
    if (layout::half_limit(journal_length_, 0) <= layout::half_start(journal_length_, 0) ||
        layout::half_limit(journal_length_, 1) <= layout::half_start(journal_length_, 1))
        throw error_fubar(
            fmt::format("Journal of {} bytes has no room for entries", journal_length_));

    const std::array<IndexEntry, 2> entries{read_index_entry(journal, 0),
                                            read_index_entry(journal, 1)};
    const int picked = pick_index(entries);
    if (picked < 0) {
        logger.error("POSSIBLE DATA LOSS: REPLAY IMPOSSIBLE");
        throw error_need_repair("Both index pointers were invalid");
    }
    check_not_shortened(entries, picked, journal_length_);
    const IndexEntry& start = entries[static_cast<size_t>(picked)];
    if (start.serial > kGreatestSerial)
        throw error_need_repair(fmt::format(
            "Journal has serial {}, which no count of its fillings reaches", start.serial));
    logger.debug("Starting replay at journal offset {}", start.position);
    guarded([&] {
        collect_replay(start.position, start.serial);
        before_writing();
        replay();
        next_index_ = 1 - picked;
        current_serial_ = serial_to_pass(
            journal, next_index_, entries[static_cast<size_t>(next_index_)].valid, current_serial_);
        flip(false);
    });
}

void Journal::replay() {
    // What a killed process wrote may stand in memory only. It must not reach the file ahead of the
    // journal.
    sync_journal();
    writer_.write(unwritten_, view(), nullptr, {.may_extend = true, .sync_follows = true});
    unwritten_.clear();
    store_.complete_last_block();
    store_.sync_store();
    file_unsynced_ = false;
}

void Journal::collect_replay(uint32_t position, uint64_t serial) {
    const std::span<const std::byte> journal{view(), journal_length_};
    bool redirected = false;
    for (current_serial_ = serial;;) {
        if (position >= journal_length_ || journal_length_ - position < sizeof(uint32_t))
            throw error_range("Access beyond end of journal attempted");
        switch (detail::entry_word(journal, position)) {
            case layout::kBegin: {
                if (!serial_is_current(position)) return;
                const uint32_t end = whole_transaction(journal, position);
                if (end == 0) return;
                collect_transaction(position, end - layout::kEndSize);
                position = end;
                break;
            }
            case layout::kRedirect: {
                if (redirected) {
                    logger.info("Encountered second redirection entry - end of replay.");
                    return;
                }
                if (journal_length_ - position < layout::kRedirectSize)
                    throw error_need_repair(fmt::format(
                        "Journal was longer once: it ends within the entry at {}", position));
                const uint32_t target =
                    detail::entry_word(journal, uint64_t{position} + layout::redirect_target);
                if (uint64_t{target} + layout::kRedirectSize > journal_length_) {
                    logger.info("Encountered bad index in redirection entry - replay end.");
                    return;
                }
                redirected = true;
                position = target;
                ++current_serial_;
                break;
            }
            default:
                logger.info("End of valid transaction-begin entries in journal.");
                return;
        }
    }
}

bool Journal::serial_is_current(uint32_t position) const {
    if (journal_length_ - position < layout::kBeginSize) return false;
    const uint64_t serial = util::load_be64(view() + position + layout::begin_serial);
    if (serial == current_serial_) return true;
    logger.debug("Transaction serial: {} current transaction serial: {}", serial, current_serial_);
    logger.info("Found stale transaction in journal - end of replay.");
    return false;
}

void Journal::collect_transaction(uint32_t position, uint32_t end) {
    const std::span<const std::byte> journal{view(), journal_length_};
    const uint64_t last_offset = (uint64_t{1} << 32) * store_.block_size();
    for (uint32_t at = position + layout::kBeginSize; at < end;) {
        detail::UpdateEntry update;
        if (!detail::read_update(journal, at, update))
            throw error_io("Update entry in log changed between reads!");
        if (update.end > end) throw error_io("Update entry in log changed length between reads!");
        if (update.file_offset > last_offset || update.length > last_offset - update.file_offset)
            throw error_consistency(fmt::format(
                "Journal holds an update at {}, outside of any block", update.file_offset));
        // Nothing reads the pieces before they are written: to look for hidden ones costs more than
        // to copy them.
        add_pieces(unwritten_, update.file_offset, update.length, update.data, unwritten_.count());
        at = update.end;
    }
}

}  // namespace mdb
