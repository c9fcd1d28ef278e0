#include "tsdb/series_store.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>
#include <utility>

#include "tsdb/failures.h"
#include "tsdb/reading.h"
#include "tsdb/series_step.h"

namespace tsdb {

namespace {

/// Series whose layout and counts are kept at hand, each in some 150 bytes.
constexpr size_t kMostKnown = 150'000;
constexpr size_t kMostShapes = 64;
constexpr size_t kMostLevels = 16;
/// Series of other layouts than these many are never made ahead.
constexpr size_t kMostSpareLayouts = 8;
constexpr uint32_t kMostLevelRecords = 1U << 24;
constexpr uint32_t kPurgeAtOnce = 500;
constexpr int64_t kEndOfTime = std::numeric_limits<int64_t>::max();

int64_t slot_of(int64_t time, uint32_t span_s) {
    return time - time % span_s;
}

void check_layout(const time_series_layout_t& layout) {
    if (layout.type < continuous || layout.type > incident)
        throw EBadRequest(fmt::format("{} is no type of time series", layout.type));
    if (layout.levels.empty() || layout.levels.size() > kMostLevels ||
        (layout.type == incident && layout.levels.size() != 1))
        throw EBadRequest(fmt::format("A time series of type {} can't have {} levels", layout.type,
                                      layout.levels.size()));
    uint32_t finer_s = 0;
    for (const level_t& level : layout.levels) {
        if (level.records == 0 || level.records > kMostLevelRecords || level.span_s <= finer_s)
            throw EBadRequest(
                fmt::format("A level of {} records of {} s can't be", level.records, level.span_s));
        finer_s = level.span_s;
    }
}

/// What a series is made like when the first data comes for an object without one.
const time_series_layout_t& layout_for(uint32_t data_type) {
    switch (data_type) {
        case kUptimeData:
        case kUptimeSumData:
            return uptime_layout();
        case kEnumeratedData:
            return enumerated_layout();
        case kContinuousData:
            return continuous_layout();
        case kIncidentData:
            return small_incident_layout();
        default:
            throw EBadRequest(fmt::format("{} is no type of data", data_type));
    }
}

}  // namespace

// ---- transactions ------------------------------------------------------------------------------

void SeriesStore::commit() {
    try {
        storage_.commit();
        uncommitted_ = 0;
        for (Spares& spares : spares_) {
            spares.ready.insert(spares.ready.end(), spares.uncommitted.begin(),
                                spares.uncommitted.end());
            spares.uncommitted.clear();
        }
    } catch (const EStorage&) {
        abort();
        throw;
    }
}

void SeriesStore::abort() noexcept {
    storage_.abort();
    known_.clear();
    for (Spares& spares : spares_) spares.uncommitted.clear();
    uncommitted_ = 0;
}

// ---- series ------------------------------------------------------------------------------------

std::shared_ptr<const SeriesStore::Shape> SeriesStore::shape_of(time_series_layout_t layout) {
    for (const auto& shape : shapes_)
        if (shape->layout == layout) return shape;
    if (shapes_.size() >= kMostShapes) shapes_.clear();
    std::vector<level_t> levels(layout.levels.begin(), layout.levels.end());
    return shapes_.emplace_back(
        std::make_shared<const Shape>(Shape{std::move(layout), std::move(levels)}));
}

SeriesStore::Known& SeriesStore::known(uint32_t index) {
    if (const auto found = known_.find(index); found != known_.end()) return found->second;
    std::optional<SeriesRow> row = storage_.find_series(index);
    if (!row) throw EBadRequest(fmt::format("There is no time series {}", index));
    if (known_.size() >= kMostKnown) known_.clear();
    Known& made = known_[index];
    made.shape = shape_of(std::move(row->layout));
    made.counts = std::move(row->counts);
    return made;
}

uint32_t SeriesStore::create(const time_series_layout_t& layout) {
    check_layout(layout);
    Step step(*this, kNoSeries);
    const uint32_t index = storage_.add_series(layout);
    step.done();
    ++uncommitted_;
    return index;
}

SeriesStore::Spares* SeriesStore::find_spares(const time_series_layout_t& layout) {
    for (Spares& spares : spares_)
        if (spares.layout == layout) return &spares;
    return nullptr;
}

std::optional<uint32_t> SeriesStore::take_spare(const time_series_layout_t& layout) {
    Spares* spares = find_spares(layout);
    if (spares == nullptr || spares->ready.empty()) return std::nullopt;
    const uint32_t index = spares->ready.back();
    spares->ready.pop_back();
    return index;
}

void SeriesStore::make_spares(const time_series_layout_t& layout) {
    Spares* spares = find_spares(layout);
    if (spares == nullptr && spares_.size() < kMostSpareLayouts)
        spares = &spares_.emplace_back(Spares{.layout = layout});
    if (spares == nullptr || !spares->uncommitted.empty()) return;
    // One series alone gives no reason to expect another one.
    for (uint32_t made = 1; made < spares->next_batch; ++made)
        spares->uncommitted.push_back(create(layout));
    spares->next_batch = std::min(2 * spares->next_batch, kMostSpares + 1);
}

void SeriesStore::drop_spares() {
    for (Spares& spares : std::exchange(spares_, {}))
        for (const auto& indexes : {spares.ready, spares.uncommitted})
            for (const uint32_t index : indexes) remove(index);
}

void SeriesStore::remove(uint32_t index) {
    Step step(*this, index);
    storage_.remove_series(index);
    step.done();
    known_.erase(index);
    ++uncommitted_;
}

bool SeriesStore::purge_some() {
    return storage_.purge(kPurgeAtOnce);
}

time_series_layout_t SeriesStore::describe(uint32_t index) {
    return known(index).shape->layout;
}

uint32_t SeriesStore::ensure(uint32_t index, uint32_t data_type) {
    const time_series_layout_t wanted = layout_for(data_type);
    if (index != kNoSeries)
        if (const auto row = storage_.find_series(index); row && row->layout.type == wanted.type)
            return index;
    return create(wanted);
}

// ---- writing -----------------------------------------------------------------------------------

void SeriesStore::check_data(const Known& series, const Data& data) const {
    for (const data_entry_t& entry : data) {
        if (!entry) throw EBadRequest("A record without data");
        if (!series.is_incident())
            static_cast<void>(to_reading(*entry, series.shape->layout.type));
        else if (entry->type() == interval_type_t::incident)
            static_cast<void>(
                encode_incident(static_cast<const data_interval_incident_t&>(*entry)));
        else
            throw EBadRequest(fmt::format("A record of kind {} in a series of incidents",
                                          static_cast<uint32_t>(entry->type())));
    }
}

void SeriesStore::put(uint32_t index, const Data& data) {
    Known& series = known(index);
    check_data(series, data);
    if (data.size() == 1 && !series.is_incident())
        return put_single(index, series, to_reading(*data.front(), series.shape->layout.type));
    Step step(*this, index, &series);
    for (const data_entry_t& entry : data) {
        if (series.is_incident())
            put_incident(index, series, static_cast<const data_interval_incident_t&>(*entry),
                         false);
        else
            put_reading(index, series, to_reading(*entry, series.shape->layout.type));
    }
    step.done();
}

void SeriesStore::merge(uint32_t index, const Data& data) {
    Known& series = known(index);
    check_data(series, data);
    Step step(*this, index, &series);
    // What is there is looked at before any of the data is, so that two of them may share a span.
    std::vector<const data_interval_t*> missing;
    for (const data_entry_t& entry : data) {
        if (series.is_incident()) {
            put_incident(index, series, static_cast<const data_interval_incident_t&>(*entry), true);
            continue;
        }
        const Reading reading = to_reading(*entry, series.shape->layout.type);
        const int64_t slot = slot_of(reading.start, series.shape->levels.front().span_s);
        if (!storage_.find(index, 0, {slot, 0})) missing.push_back(entry.get());
    }
    for (const data_interval_t* interval : missing)
        put_reading(index, series, to_reading(*interval, series.shape->layout.type));
    step.done();
}

/// The usual request, without the cost of a step: all that can be wrong with it shows before
/// anything is written. What goes wrong then is the storage's own fault, and takes all with it that
/// isn't committed.
void SeriesStore::put_single(uint32_t index, Known& series, const Reading& reading) {
    const std::vector<Sum> sums = sums_with(index, series, reading);
    const std::vector<uint32_t> counts = series.counts;
    try {
        for (uint32_t level = 0; level < sums.size(); ++level)
            write(index, series, level, {sums[level].slot, 0}, sums[level].bytes,
                  sums[level].is_new);
        if (series.counts != counts) storage_.set_counts(index, series.counts);
    } catch (const EStorage&) {
        abort();
        throw;
    }
}

void SeriesStore::put_reading(uint32_t index, Known& series, const Reading& reading) {
    const std::vector<Sum> sums = sums_with(index, series, reading);
    for (uint32_t level = 0; level < sums.size(); ++level)
        write(index, series, level, {sums[level].slot, 0}, sums[level].bytes, sums[level].is_new);
}

std::vector<SeriesStore::Sum> SeriesStore::sums_with(uint32_t index, const Known& series,
                                                     const Reading& reading) {
    const uint32_t type = series.shape->layout.type;
    std::vector<Sum> sums;
    sums.reserve(series.shape->levels.size());
    for (uint32_t level = 0; level < series.shape->levels.size(); ++level) {
        const int64_t slot = slot_of(reading.start, series.shape->levels[level].span_s);
        const auto stored = storage_.find(index, level, {slot, 0});
        Reading sum = reading;
        if (stored) {
            sum = decode(*stored, type, slot);
            consolidate(sum, reading);
        }
        sums.push_back({slot, encode(sum, type, slot), !stored});
    }
    return sums;
}

void SeriesStore::put_incident(uint32_t index, Known& series,
                               const data_interval_incident_t& incident, bool unless_there) {
    const std::string bytes = encode_incident(incident);
    std::optional<uint32_t> last;
    bool there = false;
    storage_.walk(index, 0, {incident.time, 0}, {incident.time, 0xFFFFFFFF}, !unless_there,
                  [&](RecordKey key, std::string_view stored) {
                      last = key.number;
                      there = unless_there && stored == bytes;
                      return unless_there && !there;
                  });
    if (there) return;
    if (last == 0xFFFFFFFF)
        throw EBadRequest(fmt::format("Too many incidents at {}", incident.time));
    write(index, series, 0, {incident.time, last ? *last + 1 : 0}, bytes, true);
}

void SeriesStore::write(uint32_t index, Known& series, uint32_t level, RecordKey key,
                        std::string_view bytes, bool is_new) {
    storage_.put(index, level, key, bytes);
    ++uncommitted_;
    if (!is_new) return;
    if (series.counts[level] < series.shape->levels[level].records)
        ++series.counts[level];
    else
        storage_.erase_oldest(index, level);
}

// ---- reading -----------------------------------------------------------------------------------

/// Whether the level holds all there ever was from `time` on.
bool SeriesStore::reaches_back_to(uint32_t index, const Known& series, uint32_t level,
                                  int64_t time) {
    if (series.counts[level] < series.shape->levels[level].records) return true;
    bool reaches = false;
    storage_.walk(index, level, kFirstKey, kLastKey, false,
                  [&](RecordKey oldest, std::string_view) {
                      reaches = oldest.time <= time;
                      return false;
                  });
    return reaches;
}

uint32_t SeriesStore::choose_level(uint32_t index, const Known& series,
                                   const Get_Data_Data& wanted) {
    if (wanted.raw || series.is_incident()) return 0;
    const uint32_t last = static_cast<uint32_t>(series.shape->levels.size()) - 1;
    const uint32_t resolution_s = resolution_of(wanted.flags);
    uint32_t level = 0;
    while (level < last && series.shape->levels[level + 1].span_s <= resolution_s) ++level;
    if (from_newest(wanted.flags) && wanted.start == 0) return level;
    while (level < last && !reaches_back_to(index, series, level, wanted.start)) ++level;
    return level;
}

SeriesStore::Data SeriesStore::get(const Get_Data_Data& wanted) {
    const Known& series = known(wanted.handle);
    const uint32_t level = choose_level(wanted.handle, series, wanted);
    const int64_t span_s = series.shape->levels[level].span_s;
    const int64_t end = wanted.end == 0 ? kEndOfTime : wanted.end;
    const uint32_t most = wanted.count == 0 ? kMostRecords : std::min(wanted.count, kMostRecords);

    const int64_t start = std::max<int64_t>(wanted.start, 0);
    RecordKey first{start - start % span_s, 0};
    // The record before may reach into the range.
    if (!series.is_incident())
        storage_.walk(wanted.handle, level, kFirstKey, {first.time - 1, 0xFFFFFFFF}, true,
                      [&](RecordKey before, std::string_view) {
                          first = before;
                          return false;
                      });

    Data data;
    uint32_t left_out = 0;
    const auto take = [&](data_entry_t entry) {
        if (left_out < wanted.offset)
            ++left_out;
        else
            data.push_back(std::move(entry));
        return data.size() < most;
    };
    const bool backward = from_newest(wanted.flags);
    storage_.walk(wanted.handle, level, first, {end, 0xFFFFFFFF}, backward,
                  [&](RecordKey key, std::string_view bytes) {
                      if (series.is_incident())
                          return take(data_entry_t(std::make_unique<data_interval_incident_t>(
                              decode_incident(bytes, key.time))));
                      const Reading reading = decode(bytes, series.shape->layout.type, key.time);
                      if (reading.end < start || reading.start > end) return true;
                      return take(to_entry(reading, series.shape->layout.type));
                  });
    if (backward) std::reverse(data.begin(), data.end());
    return data;
}

int64_t SeriesStore::oldest_time() {
    return storage_.oldest_time().value_or(0);
}

void SeriesStore::truncate(uint32_t index, int64_t time) {
    Known& series = known(index);
    Step step(*this, index, &series);
    for (uint32_t level = 0; level < series.shape->levels.size(); ++level) {
        std::vector<RecordKey> old;
        storage_.walk(
            index, level, kFirstKey, {time, 0}, false, [&](RecordKey key, std::string_view bytes) {
                const int64_t end = series.is_incident()
                                        ? key.time
                                        : decode(bytes, series.shape->layout.type, key.time).end;
                if (end < time) old.push_back(key);
                return true;
            });
        for (const RecordKey& key : old) storage_.erase(index, level, key);
        series.counts[level] -= static_cast<uint32_t>(old.size());
        uncommitted_ += old.size();
    }
    step.done();
}

}  // namespace tsdb
