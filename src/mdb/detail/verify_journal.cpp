#include "mdb/detail/verify_journal.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

#include "mdb/detail/journal_entries.h"
#include "mdb/journal_layout.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace mdb::detail {

namespace layout = journal_layout;

namespace {

class LogWalk {
  public:
    LogWalk(std::span<const std::byte> journal, uint32_t block_size, uint64_t block_count,
            FaultReport& report)
        : journal_(journal),
          length_(static_cast<uint32_t>(journal.size())),
          block_size_(block_size),
          reach_(block_count * block_size),
          report_(report) {
        scan_.state.length = journal.size();
    }

    JournalScan run() {
        if (!check_header()) return std::move(scan_);
        JournalState& state = scan_.state;
        for (int half = 0; half < 2; ++half) state.halves[static_cast<size_t>(half)] = entry(half);
        pick();
        if (state.picked < 0) {
            fault(layout::index_entries,
                  "both index entries fail their CRC: nothing can be replayed");
            return std::move(scan_);
        }
        const JournalState::Half& from = state.halves[static_cast<size_t>(state.picked)];
        const bool first_sound = check_start(0);
        const bool second_sound = check_start(1);
        if (state.picked == 0 ? first_sound : second_sound) follow(from.position, from.serial);
        sort_touched();
        return std::move(scan_);
    }

  private:
    template <class... Args>
    void fault(uint32_t position, fmt::format_string<Args...> format, Args&&... args) {
        report_.add("J", 0, position, fmt::format(format, std::forward<Args>(args)...));
    }

    [[nodiscard]] uint32_t word(uint32_t position) const { return entry_word(journal_, position); }

    bool check_header() {
        if (journal_.size() < layout::kFirstHalf) {
            fault(0, "journal of {} bytes has no room for its header", journal_.size());
            return false;
        }
        if (word(layout::magic) != layout::kMagic) {
            fault(layout::magic, "journal has magic {:#010x}", word(layout::magic));
            return false;
        }
        if (word(layout::version) != layout::kVersion) {
            fault(layout::version, "journal has version {}", word(layout::version));
            return false;
        }
        for (int half = 0; half < 2; ++half)
            if (layout::half_limit(length_, half) <= layout::half_start(length_, half)) {
                fault(0, "journal of {} bytes has no room for entries", journal_.size());
                return false;
            }
        return true;
    }

    [[nodiscard]] JournalState::Half entry(int half) const {
        const std::byte* at = journal_.data() + layout::index_entries +
                              static_cast<size_t>(half) * layout::kIndexEntrySize;
        security::Crc32 crc;
        crc.update(layout::index_crc, at);
        return {crc.value() == util::load_be32(at + layout::index_crc),
                util::load_be64(at + layout::index_serial),
                util::load_be32(at + layout::index_position),
                layout::half_limit(length_, half) - layout::half_start(length_, half)};
    }

    void pick() {
        const auto& [first, second] = scan_.state.halves;
        const uint64_t first_serial = first.valid ? first.serial : 0;
        if (first.valid) scan_.state.picked = 0;
        if (second.valid && (second.serial > first_serial ||
                             (second.serial == first_serial && first.position == 0)))
            scan_.state.picked = 1;
    }

    /// False when the half has an index entry that leads elsewhere.
    bool check_start(int half) {
        const auto& [valid, serial, position, capacity] =
            scan_.state.halves[static_cast<size_t>(half)];
        if (!valid || position == layout::half_start(length_, half)) return true;
        fault(layout::index_entries + static_cast<uint32_t>(half) * layout::kIndexEntrySize +
                  layout::index_position,
              "half {} begins at {}, but its index entry says {}", half + 1,
              layout::half_start(length_, half), position);
        return false;
    }

    void follow(uint32_t position, uint64_t serial) {
        half_ = scan_.state.picked;
        bool redirected = false;
        for (;;) {
            if (word(position) == layout::kBegin) {
                const uint32_t end = take_transaction(position, serial);
                if (end == 0) return;
                position = end;
            } else if (word(position) == layout::kRedirect) {
                const uint32_t target = word(position + layout::redirect_target);
                if (redirected) return stop(position, "a second redirection");
                if (target != layout::half_start(length_, 1 - half_)) {
                    fault(position, "redirection leads to {}, the other half begins at {}", target,
                          layout::half_start(length_, 1 - half_));
                    return stop(position, "a bad redirection");
                }
                redirected = true;
                half_ = 1 - half_;
                position = target;
                ++serial;
            } else {
                return stop(position, "no further entry");
            }
        }
    }

    /// Position behind the whole transaction at `position`; 0 if the log ends there.
    uint32_t take_transaction(uint32_t position, uint64_t serial) {
        const uint32_t limit = layout::half_limit(length_, half_);
        if (position + layout::kBeginSize > limit)
            return stop(position, "a transaction that doesn't fit in its half"), 0;
        if (const uint64_t found = util::load_be64(&journal_[position + layout::begin_serial]);
            found != serial)
            return stop(position, "a transaction of another filling of the half"), 0;
        uint32_t end = position + layout::kBeginSize;
        for (UpdateEntry update; read_update(journal_, end, update);) end = update.end;
        if (word(end) != layout::kEnd || journal_.size() - end < layout::kEndSize)
            return stop(position, "a transaction without its end"), 0;
        security::Crc32 crc;
        crc.update(end - position, journal_.data() + position);
        if (crc.value() != word(end + layout::end_crc))
            return stop(position, "a transaction with another CRC"), 0;
        if (end + layout::kEndSize > limit)
            fault(position, "transaction ends at {}, its half at {}", end + layout::kEndSize,
                  limit);
        ++scan_.state.transactions;
        for (uint32_t at = position + layout::kBeginSize; at < end;) at = take_update(at);
        return end + layout::kEndSize;
    }

    uint32_t take_update(uint32_t position) {
        UpdateEntry update;
        static_cast<void>(read_update(journal_, position, update));
        ++scan_.state.updates;
        scan_.state.update_bytes += update.length;
        if (word(position + layout::update_zero) != 0)
            fault(position + layout::update_zero, "update has {} where 0 must stand",
                  word(position + layout::update_zero));
        if (update.file_offset > reach_ || update.length > reach_ - update.file_offset) {
            fault(position, "update of {} bytes at {} leads beyond the {} bytes that the map knows",
                  update.length, update.file_offset, reach_);
            return update.end;
        }
        if (update.length == 0) return update.end;
        const uint64_t last = (update.file_offset + update.length - 1) / block_size_;
        for (uint64_t block = update.file_offset / block_size_; block <= last; ++block)
            touch(static_cast<uint32_t>(block));
        return update.end;
    }

    void touch(uint32_t block) {
        if (!scan_.touched.empty() && scan_.touched.back() == block) return;
        scan_.touched.push_back(block);
        if (scan_.touched.size() >= sort_at_) sort_touched();
    }

    /// Keeps the list about as long as there are blocks in it.
    void sort_touched() {
        std::vector<uint32_t>& list = scan_.touched;
        std::sort(list.begin(), list.end());
        list.erase(std::unique(list.begin(), list.end()), list.end());
        sort_at_ = std::max(kFirstSort, 2 * list.size());
    }

    void stop(uint32_t position, const char* reason) {
        const uint32_t limit = layout::half_limit(length_, half_);
        scan_.state.end = position;
        scan_.state.end_reason = reason;
        scan_.state.free = position < limit ? limit - position : 0;
    }

    std::span<const std::byte> journal_;
    uint32_t length_;
    static constexpr size_t kFirstSort = 1 << 20;

    uint32_t block_size_;
    /// Bytes of the file that the map knows of.
    uint64_t reach_;
    FaultReport& report_;
    JournalScan scan_;
    size_t sort_at_ = kFirstSort;
    int half_ = 0;
};

}  // namespace

JournalScan scan_journal(std::span<const std::byte> journal, uint32_t block_size,
                         uint64_t block_count, FaultReport& report) {
    return LogWalk(journal, block_size, block_count, report).run();
}

}  // namespace mdb::detail
