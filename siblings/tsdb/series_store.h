// SeriesStore: the series with their levels, over a Storage. A series of measured values or of an
// enumeration has a record for each span of each of its levels in which there was data; a new one
// is consolidated into the record of its span in every level, so that it doesn't matter in which
// order records come. A series of incidents has one level, in which each incident is a record. A
// level that is full drops its oldest records.
//
// What is written is durable after commit(). Requests that can't be met throw EBadRequest and have
// changed nothing; trouble with the storage throws EStorage, and the request has changed nothing
// either. Memory doesn't grow with the number of series.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "queues/records/tsdb_requests.h"
#include "queues/series_kinds.h"
#include "tsdb/reading.h"
#include "tsdb/storage.h"

namespace tsdb {

/// The most records that one answer holds; what asks for more gets that many.
inline constexpr uint32_t kMostRecords = 100'000;

class SeriesStore {
  public:
    /// `storage` outlives the store.
    explicit SeriesStore(Storage& storage) : storage_(storage) {}

    void commit();
    /// Forgets what isn't committed.
    void abort() noexcept;
    /// Records written since the last commit.
    [[nodiscard]] size_t uncommitted() const noexcept { return uncommitted_; }
    [[nodiscard]] bool has_uncommitted() const { return storage_.in_transaction(); }

    [[nodiscard]] uint32_t create(const time_series_layout_t& layout);
    /// A series that was made ahead and is durable already; none when there is none. Handed out
    /// once.
    [[nodiscard]] std::optional<uint32_t> take_spare(const time_series_layout_t& layout);
    /// Makes series of this layout ahead, more of them each time, for take_spare() after the next
    /// commit. Those that are left when the process is killed stay behind, empty.
    void make_spares(const time_series_layout_t& layout);
    /// Removes all that were made ahead and not taken.
    void drop_spares();
    static constexpr uint32_t kMostSpares = 64;
    /// Nothing to do for a series that isn't there: an object may be deleted twice.
    void remove(uint32_t index);
    /// A small part of the work that removed series leave. False when there is none.
    bool purge_some();
    [[nodiscard]] time_series_layout_t describe(uint32_t index);

    using Data = std::vector<data_entry_t>;
    /// Stores all of `data` or, when one of them can't be, none.
    void put(uint32_t index, const Data& data);
    /// Stores those for which there isn't anything yet: those in whose span of the finest level
    /// there is no record; incidents that aren't there in time, severity and message. Doing it
    /// twice is as good as doing it once.
    void merge(uint32_t index, const Data& data);
    /// The series at `index`, if that is one for data of this type, or else a new one.
    [[nodiscard]] uint32_t ensure(uint32_t index, uint32_t data_type);

    /// The records of one level that reach into the range, in the order of time; see Get_Data_Data.
    [[nodiscard]] Data get(const Get_Data_Data& wanted);
    /// Erases all that ended before `time`.
    void truncate(uint32_t index, int64_t time);
    /// Of all series, in seconds since the epoch; 0 when there is none.
    [[nodiscard]] int64_t oldest_time();

    /// Equal for two series with the same layout and records, wherever they are.
    [[nodiscard]] std::string checksum(uint32_t index);
    /// The whole series as bytes for merge_extract(), at most 64 MiB.
    [[nodiscard]] std::string extract(uint32_t index);
    /// Adds what these series of the same layout know: of two records for one span the one with
    /// more samples stays, incidents stand beside each other. Doing it twice changes nothing more.
    void merge_extracts(uint32_t index, const std::vector<std::string>& extracts);

  private:
    /// Of many series; there are few.
    struct Shape {
        time_series_layout_t layout;
        std::vector<level_t> levels;
    };
    struct Known {
        std::shared_ptr<const Shape> shape;
        std::vector<uint32_t> counts;

        [[nodiscard]] bool is_incident() const { return shape->layout.type == incident; }
    };
    class Step;

    /// Valid until the next call.
    Known& known(uint32_t index);
    std::shared_ptr<const Shape> shape_of(time_series_layout_t layout);
    /// What the record of one level is to become.
    struct Sum {
        int64_t slot;
        std::string bytes;
        bool is_new;
    };
    [[nodiscard]] std::vector<Sum> sums_with(uint32_t index, const Known& series,
                                             const Reading& reading);
    void put_single(uint32_t index, Known& series, const Reading& reading);
    void put_reading(uint32_t index, Known& series, const Reading& reading);
    void put_incident(uint32_t index, Known& series, const data_interval_incident_t& incident,
                      bool unless_there);
    /// Writes a record and keeps the level within its number of them.
    void write(uint32_t index, Known& series, uint32_t level, RecordKey key, std::string_view bytes,
               bool is_new);
    [[nodiscard]] uint32_t choose_level(uint32_t index, const Known& series,
                                        const Get_Data_Data& wanted);
    [[nodiscard]] bool reaches_back_to(uint32_t index, const Known& series, uint32_t level,
                                       int64_t time);
    void check_data(const Known& series, const Data& data) const;
    void merge_extract(uint32_t index, Known& series, std::string_view extract);

    struct Spares {
        time_series_layout_t layout;
        uint32_t next_batch = 1;
        std::vector<uint32_t> ready{};
        std::vector<uint32_t> uncommitted{};
    };
    Spares* find_spares(const time_series_layout_t& layout);

    Storage& storage_;
    std::unordered_map<uint32_t, Known> known_;
    std::vector<std::shared_ptr<const Shape>> shapes_;
    std::vector<Spares> spares_;
    size_t uncommitted_ = 0;
};

}  // namespace tsdb
