// Reading: what a series of measured values or of an enumeration holds for one span of one level,
// be it one measurement or many that were consolidated.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "queues/records/tsdb_records.h"

namespace tsdb {

/// Times in seconds since the epoch. An enumeration uses the mask, measured values the other three.
struct Reading {
    int64_t start = 0;
    int64_t end = 0;
    float min = 0;
    float max = 0;
    double avg = 0;  ///< finer than what travels, since it is averaged again and again
    uint32_t mask = 0;
    uint32_t ngood = 0;
    uint32_t nbad = 0;

    friend bool operator==(const Reading&, const Reading&) = default;
};

/// Throws EBadRequest for an interval that is none of the kind `type`, one of
/// tsdb::series_type_t but not an incident, or whose times or values can't be.
[[nodiscard]] Reading to_reading(const data_interval_t& interval, uint32_t type);
[[nodiscard]] data_entry_t to_entry(const Reading& reading, uint32_t type);

/// Adds `other` to `sum`: the time that both span, least and greatest value, the average weighted
/// by the good samples, the sum of both counts, up to the greatest number there is, and all bits of
/// both masks. A side without good samples has no part in the values, unless neither has any: then
/// the later one's average stands.
void consolidate(Reading& sum, const Reading& other);

/// The stored form of a reading in the span that begins at `slot`; see the .cpp file.
[[nodiscard]] std::string encode(const Reading& reading, uint32_t type, int64_t slot);
/// Throws EDamaged for bytes that can't be one.
[[nodiscard]] Reading decode(std::string_view bytes, uint32_t type, int64_t slot);

/// The same for incidents, which are stored at their time.
[[nodiscard]] std::string encode_incident(const data_interval_incident_t& incident);
[[nodiscard]] data_interval_incident_t decode_incident(std::string_view bytes, int64_t time);

}  // namespace tsdb
