// Storage: where the records of series lie. It knows series, levels and keys, and nothing of what
// the bytes mean; SeriesStore does. One storage is used by one thread. All operations throw
// EStorage; the storage can be used on. Where the failure took the whole transaction with it, as a
// full disk does, in_transaction() is false afterwards.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "queues/records/tsdb_records.h"

namespace tsdb {

/// Where a record lies in its level: by time, and for those of one time by number.
struct RecordKey {
    int64_t time = 0;
    uint32_t number = 0;

    friend auto operator<=>(const RecordKey&, const RecordKey&) = default;
};

inline constexpr RecordKey kFirstKey{std::numeric_limits<int64_t>::min(), 0};
inline constexpr RecordKey kLastKey{std::numeric_limits<int64_t>::max(), 0xFFFFFFFF};

struct SeriesRow {
    time_series_layout_t layout;
    /// Records in each level.
    std::vector<uint32_t> counts;
};

class Storage {
  public:
    virtual ~Storage() = default;

    /// Makes what was written since the last one durable. Everything that changes something opens a
    /// transaction by itself.
    virtual void commit() = 0;
    [[nodiscard]] virtual bool in_transaction() const = 0;
    /// Takes back what was written since the last commit. Throws nothing.
    virtual void abort() noexcept = 0;
    /// What is written between begin_step() and end_step() is taken back alone by undo_step().
    virtual void begin_step() = 0;
    virtual void end_step() = 0;
    virtual void undo_step() noexcept = 0;

    /// Makes a series and gives its index, which no other series has had before.
    virtual uint32_t add_series(const time_series_layout_t& layout) = 0;
    [[nodiscard]] virtual std::optional<SeriesRow> find_series(uint32_t index) = 0;
    virtual void set_counts(uint32_t index, const std::vector<uint32_t>& counts) = 0;
    /// The series is gone at once, its records by and by; nothing to do for one that isn't there.
    virtual void remove_series(uint32_t index) = 0;
    /// Erases up to `most` records of removed series. False when there are none left.
    virtual bool purge(uint32_t most) = 0;

    [[nodiscard]] virtual std::optional<std::string> find(uint32_t index, uint32_t level,
                                                          RecordKey key) = 0;
    /// Replaces a record of that key.
    virtual void put(uint32_t index, uint32_t level, RecordKey key, std::string_view bytes) = 0;
    virtual void erase_oldest(uint32_t index, uint32_t level) = 0;
    virtual void erase(uint32_t index, uint32_t level, RecordKey key) = 0;

    /// Gets one record after the other; false ends the walk. May change nothing.
    using Visit = std::function<bool(RecordKey, std::string_view bytes)>;
    /// Records from `first` to `last`, in the order of time or against it.
    virtual void walk(uint32_t index, uint32_t level, RecordKey first, RecordKey last,
                      bool backward, const Visit& visit) = 0;
    /// The least key time of all records of all series; none without any.
    [[nodiscard]] virtual std::optional<int64_t> oldest_time() = 0;
};

}  // namespace tsdb
