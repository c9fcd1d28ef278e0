// A series as bytes, for the recovery of one store from another. All numbers little-endian:
//
//   0 magic u32 | 4 type u32 | 8 levels n u32 | 12 n times records u32, span u32
//   then each record: level u32 | time i64 | number u32 | length u32 | the stored form of the
//   record
#include <fmt/format.h>
#include <map>
#include <set>
#include <string>

#include "tsdb/failures.h"
#include "tsdb/reading.h"
#include "tsdb/series_step.h"
#include "tsdb/series_store.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace tsdb {

namespace {

constexpr uint32_t kMagic = 0x31585354;  // "TSX1"
constexpr size_t kHeadBytes = 12;
constexpr size_t kLevelBytes = 8;
constexpr size_t kRecordHead = 20;
constexpr size_t kMostBytes = size_t{64} << 20;

void add_u32(std::string& out, uint32_t number) {
    char bytes[4];
    util::store_le32(bytes, number);
    out.append(bytes, sizeof bytes);
}

std::string head_of(const time_series_layout_t& layout) {
    std::string out;
    add_u32(out, kMagic);
    add_u32(out, layout.type);
    add_u32(out, static_cast<uint32_t>(layout.levels.size()));
    for (const level_t& level : layout.levels) {
        add_u32(out, level.records);
        add_u32(out, level.span_s);
    }
    return out;
}

struct Record {
    uint32_t level = 0;
    RecordKey key;
    std::string_view bytes;
};

void append(std::string& out, uint32_t level, RecordKey key, std::string_view bytes) {
    char head[kRecordHead];
    util::store_le32(head, level);
    util::store_le64(head + 4, static_cast<uint64_t>(key.time));
    util::store_le32(head + 12, key.number);
    util::store_le32(head + 16, static_cast<uint32_t>(bytes.size()));
    out.append(head, sizeof head);
    out.append(bytes);
}

/// The records behind the head, each of which can be one of a series of this layout. Throws
/// EBadRequest.
std::vector<Record> records_of(std::string_view extract, const time_series_layout_t& layout) {
    const std::string head = head_of(layout);
    if (!extract.starts_with(head))
        throw EBadRequest("The extract isn't of a time series of the same layout");
    extract.remove_prefix(head.size());
    const std::vector<level_t> levels(layout.levels.begin(), layout.levels.end());
    std::vector<Record> records;
    while (!extract.empty()) {
        if (extract.size() < kRecordHead) throw EBadRequest("The extract ends within a record");
        Record record{util::load_le32(extract.data()),
                      {static_cast<int64_t>(util::load_le64(extract.data() + 4)),
                       util::load_le32(extract.data() + 12)},
                      {}};
        const uint32_t size = util::load_le32(extract.data() + 16);
        extract.remove_prefix(kRecordHead);
        if (size > extract.size()) throw EBadRequest("The extract ends within a record");
        record.bytes = extract.substr(0, size);
        extract.remove_prefix(size);
        if (record.level >= levels.size() || record.key.time < 0 ||
            record.key.time % levels[record.level].span_s != 0)
            throw EBadRequest(fmt::format("The extract has a record at {} in level {}",
                                          record.key.time, record.level));
        try {
            if (layout.type == incident)
                static_cast<void>(encode_incident(decode_incident(record.bytes, record.key.time)));
            else
                static_cast<void>(decode(record.bytes, layout.type, record.key.time));
        } catch (const EDamaged& failure) {
            throw EBadRequest(failure.text());
        }
        records.push_back(record);
    }
    return records;
}

uint64_t samples(const Reading& reading) {
    return uint64_t{reading.ngood} + reading.nbad;
}

}  // namespace

std::string SeriesStore::checksum(uint32_t index) {
    const Known& series = known(index);
    security::Crc32 sum;
    const std::string head = head_of(series.shape->layout);
    sum.update(head.size(), head.data());
    uint64_t records = 0;
    std::string one;
    for (uint32_t level = 0; level < series.shape->levels.size(); ++level)
        storage_.walk(index, level, kFirstKey, kLastKey, false,
                      [&](RecordKey key, std::string_view bytes) {
                          one.clear();
                          append(one, level, key, bytes);
                          sum.update(one.size(), one.data());
                          ++records;
                          return true;
                      });
    return fmt::format("{:08x}-{}", sum.value(), records);
}

std::string SeriesStore::extract(uint32_t index) {
    const Known& series = known(index);
    std::string out = head_of(series.shape->layout);
    for (uint32_t level = 0; level < series.shape->levels.size(); ++level)
        storage_.walk(
            index, level, kFirstKey, kLastKey, false, [&](RecordKey key, std::string_view bytes) {
                append(out, level, key, bytes);
                if (out.size() > kMostBytes)
                    throw EBadRequest(
                        fmt::format("Time series {} is larger than {} bytes", index, kMostBytes));
                return true;
            });
    return out;
}

void SeriesStore::merge_extracts(uint32_t index, const std::vector<std::string>& extracts) {
    Known& series = known(index);
    Step step(*this, index, &series);
    for (const std::string& extract : extracts) merge_extract(index, series, extract);
    step.done();
}

void SeriesStore::merge_extract(uint32_t index, Known& series, std::string_view extract) {
    for (const Record& record : records_of(extract, series.shape->layout)) {
        if (series.is_incident()) {
            put_incident(index, series, decode_incident(record.bytes, record.key.time), true);
            continue;
        }
        const auto stored = storage_.find(index, record.level, record.key);
        const auto read = [&](std::string_view bytes) {
            return decode(bytes, series.shape->layout.type, record.key.time);
        };
        if (!stored || samples(read(*stored)) < samples(read(record.bytes)))
            write(index, series, record.level, record.key, record.bytes, !stored);
    }
}

}  // namespace tsdb
