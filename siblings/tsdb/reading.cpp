// Stored forms, all numbers little-endian; a "count" is seven bits a byte, the lowest first, with
// the top bit set in all but the last:
//
//   measured values   flags u8 | start less slot count | end less start count
//                     | good count unless kOneGood | bad count unless kNoBad
//                     | min f32 | max f32 | average f64, f32 with kFloatAverage: only one f32 with
//                     kOneValue, none with kNoValue
//   enumeration       the same with the mask, a count, in place of the values
//   incident          severity u32 | message to the end
//
// Where that is no shorter, and in files of an older program, without flags and counts:
//
//   measured values   0 start less slot u32 | 4 end less start u32 | 8 good u32 | 12 bad u32
//                     16 min f32 | 20 max f32 | 24 average f64 | 32
//   enumeration       0 to 16 as above | 16 mask u32 | 20
#include "tsdb/reading.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <fmt/format.h>
#include <limits>

#include "tsdb/failures.h"
#include "util/byte_order.h"

namespace tsdb {

namespace {

constexpr size_t kCommonBytes = 16;
constexpr size_t kMeasuredBytes = 32;
constexpr size_t kEnumBytes = 20;
constexpr size_t kIncidentHead = 4;
constexpr int64_t kMaxTime = int64_t{1} << 40;
constexpr uint32_t kMaxU32 = std::numeric_limits<uint32_t>::max();

uint32_t sum_of(uint32_t a, uint32_t b) {
    return a > kMaxU32 - b ? kMaxU32 : a + b;
}

void check_times(int64_t start, int64_t end) {
    if (start < 0 || end < start || end > kMaxTime || end - start > kMaxU32)
        throw EBadRequest(fmt::format("A record from {} to {} can't be", start, end));
}

[[noreturn]] void refuse_kind(const data_interval_t& interval, uint32_t type) {
    throw EBadRequest(fmt::format("A record of kind {} in a series of type {}",
                                  static_cast<uint32_t>(interval.type()), type));
}

enum flag_t : uint8_t {
    kOneGood = 1,
    kNoBad = 2,
    kFloatAverage = 4,
    kOneValue = 8,
    kNoValue = 16,
};

bool same_bits(double a, double b) {
    return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

uint8_t flags_of(const Reading& reading, uint32_t type) {
    unsigned flags = 0;
    if (reading.ngood == 1) flags |= kOneGood;
    if (reading.nbad == 0) flags |= kNoBad;
    if (type != enumerated) {
        if (same_bits(reading.avg, static_cast<float>(reading.avg))) flags |= kFloatAverage;
        if (same_bits(reading.min, reading.avg) && same_bits(reading.max, reading.avg))
            flags |= static_cast<unsigned>(same_bits(reading.avg, 0) ? kNoValue : kOneValue);
    }
    return static_cast<uint8_t>(flags);
}

void add_count(std::string& out, uint32_t number) {
    for (; number >= 0x80; number >>= 7) out += static_cast<char>(number | 0x80);
    out += static_cast<char>(number);
}

void add_float(std::string& out, float value) {
    char bytes[4];
    util::store_le32(bytes, std::bit_cast<uint32_t>(value));
    out.append(bytes, sizeof bytes);
}

void add_double(std::string& out, double value) {
    char bytes[8];
    util::store_le64(bytes, std::bit_cast<uint64_t>(value));
    out.append(bytes, sizeof bytes);
}

std::string encode_short(const Reading& reading, uint32_t type, int64_t slot) {
    const uint8_t flags = flags_of(reading, type);
    std::string out(1, static_cast<char>(flags));
    add_count(out, static_cast<uint32_t>(reading.start - slot));
    add_count(out, static_cast<uint32_t>(reading.end - reading.start));
    if ((flags & kOneGood) == 0) add_count(out, reading.ngood);
    if ((flags & kNoBad) == 0) add_count(out, reading.nbad);
    if (type == enumerated) {
        add_count(out, reading.mask);
    } else if ((flags & kOneValue) != 0) {
        add_float(out, reading.min);
    } else if ((flags & kNoValue) == 0) {
        add_float(out, reading.min);
        add_float(out, reading.max);
        if ((flags & kFloatAverage) != 0)
            add_float(out, static_cast<float>(reading.avg));
        else
            add_double(out, reading.avg);
    }
    return out;
}

/// Takes a short form apart. All of it throws EDamaged where there is too little.
class ShortForm {
  public:
    explicit ShortForm(std::string_view bytes) : bytes_(bytes) {}

    uint8_t byte() { return static_cast<uint8_t>(take(1).front()); }
    uint8_t flags() {
        const uint8_t flags = byte();
        if (flags >= 2 * kNoValue) fail();
        return flags;
    }
    uint32_t count() {
        uint64_t number = 0;
        for (unsigned shift = 0; shift < 35; shift += 7) {
            const uint8_t part = byte();
            number |= uint64_t{part & 0x7FU} << shift;
            if (part < 0x80) break;
        }
        if (number > kMaxU32) fail();
        return static_cast<uint32_t>(number);
    }
    float f32() { return std::bit_cast<float>(util::load_le32(take(4).data())); }
    double f64() { return std::bit_cast<double>(util::load_le64(take(8).data())); }
    void check_end() const {
        if (!bytes_.empty()) fail();
    }

  private:
    [[noreturn]] static void fail() { throw EDamaged("A record that can't be one"); }
    std::string_view take(size_t size) {
        if (bytes_.size() < size) fail();
        const std::string_view taken = bytes_.substr(0, size);
        bytes_.remove_prefix(size);
        return taken;
    }

    std::string_view bytes_;
};

Reading decode_short(std::string_view bytes, uint32_t type, int64_t slot) {
    ShortForm in(bytes);
    const uint8_t flags = in.flags();
    Reading reading;
    reading.start = slot + in.count();
    reading.end = reading.start + in.count();
    reading.ngood = (flags & kOneGood) != 0 ? 1 : in.count();
    reading.nbad = (flags & kNoBad) != 0 ? 0 : in.count();
    if (type == enumerated) {
        reading.mask = in.count();
    } else if ((flags & kOneValue) != 0) {
        reading.min = reading.max = in.f32();
        reading.avg = reading.min;
    } else if ((flags & kNoValue) == 0) {
        reading.min = in.f32();
        reading.max = in.f32();
        reading.avg = (flags & kFloatAverage) != 0 ? double{in.f32()} : in.f64();
    }
    in.check_end();
    return reading;
}

std::string common(const Reading& reading, size_t size, int64_t slot) {
    std::string bytes(size, '\0');
    util::store_le32(bytes.data(), static_cast<uint32_t>(reading.start - slot));
    util::store_le32(bytes.data() + 4, static_cast<uint32_t>(reading.end - reading.start));
    util::store_le32(bytes.data() + 8, reading.ngood);
    util::store_le32(bytes.data() + 12, reading.nbad);
    return bytes;
}

}  // namespace

Reading to_reading(const data_interval_t& interval, uint32_t type) {
    Reading reading;
    if (type == enumerated && interval.type() == interval_type_t::enumerated) {
        const auto& given = static_cast<const data_interval_enum_t&>(interval);
        check_times(given.start, given.end);
        reading = {.start = given.start,
                   .end = given.end,
                   .mask = given.mask,
                   .ngood = given.ngood,
                   .nbad = given.nbad};
        return reading;
    }
    const bool measured = type == continuous || type == uptime;
    if (!measured || interval.type() != interval_type_t::continuous) refuse_kind(interval, type);
    const auto& given = static_cast<const data_interval_continuous_t&>(interval);
    check_times(given.start, given.end);
    for (const float value : {given.min, given.avg, given.max})
        if (!std::isfinite(value))
            throw EBadRequest(fmt::format("A value of {} can't be stored", value));
    reading = {.start = given.start,
               .end = given.end,
               .min = given.min,
               .max = given.max,
               .avg = given.avg,
               .ngood = given.ngood,
               .nbad = given.nbad};
    return reading;
}

data_entry_t to_entry(const Reading& reading, uint32_t type) {
    if (type == enumerated) {
        auto made = std::make_unique<data_interval_enum_t>();
        made->mask = reading.mask;
        made->ngood = reading.ngood;
        made->nbad = reading.nbad;
        made->start = reading.start;
        made->end = reading.end;
        return data_entry_t(std::move(made));
    }
    auto made = std::make_unique<data_interval_continuous_t>();
    made->start = reading.start;
    made->end = reading.end;
    made->min = reading.min;
    made->avg = static_cast<float>(reading.avg);
    made->max = reading.max;
    made->ngood = reading.ngood;
    made->nbad = reading.nbad;
    return data_entry_t(std::move(made));
}

void consolidate(Reading& sum, const Reading& other) {
    const double weight = sum.ngood, other_weight = other.ngood;
    if (weight == 0 && other_weight == 0) {
        if (other.start >= sum.start) sum.avg = other.avg;
        sum.min = std::min(sum.min, other.min);
        sum.max = std::max(sum.max, other.max);
    } else if (weight == 0) {
        sum.min = other.min;
        sum.max = other.max;
        sum.avg = other.avg;
    } else if (other_weight != 0) {
        sum.min = std::min(sum.min, other.min);
        sum.max = std::max(sum.max, other.max);
        sum.avg += (other.avg - sum.avg) * (other_weight / (weight + other_weight));
    }
    sum.start = std::min(sum.start, other.start);
    sum.end = std::max(sum.end, other.end);
    sum.ngood = sum_of(sum.ngood, other.ngood);
    sum.nbad = sum_of(sum.nbad, other.nbad);
    sum.mask |= other.mask;
}

std::string encode(const Reading& reading, uint32_t type, int64_t slot) {
    if (std::string form = encode_short(reading, type, slot);
        form.size() < (type == enumerated ? kEnumBytes : kMeasuredBytes))
        return form;
    if (type == enumerated) {
        std::string bytes = common(reading, kEnumBytes, slot);
        util::store_le32(bytes.data() + kCommonBytes, reading.mask);
        return bytes;
    }
    std::string bytes = common(reading, kMeasuredBytes, slot);
    util::store_le32(bytes.data() + 16, std::bit_cast<uint32_t>(reading.min));
    util::store_le32(bytes.data() + 20, std::bit_cast<uint32_t>(reading.max));
    util::store_le64(bytes.data() + 24, std::bit_cast<uint64_t>(reading.avg));
    return bytes;
}

Reading decode(std::string_view bytes, uint32_t type, int64_t slot) {
    const size_t full_size = type == enumerated ? kEnumBytes : kMeasuredBytes;
    if (bytes.size() < full_size) return decode_short(bytes, type, slot);
    if (bytes.size() != full_size)
        throw EDamaged(
            fmt::format("A record of {} bytes in a series of type {}", bytes.size(), type));
    Reading reading;
    reading.start = slot + util::load_le32(bytes.data());
    reading.end = reading.start + util::load_le32(bytes.data() + 4);
    reading.ngood = util::load_le32(bytes.data() + 8);
    reading.nbad = util::load_le32(bytes.data() + 12);
    if (type == enumerated) {
        reading.mask = util::load_le32(bytes.data() + kCommonBytes);
    } else {
        reading.min = std::bit_cast<float>(util::load_le32(bytes.data() + 16));
        reading.max = std::bit_cast<float>(util::load_le32(bytes.data() + 20));
        reading.avg = std::bit_cast<double>(util::load_le64(bytes.data() + 24));
    }
    return reading;
}

std::string encode_incident(const data_interval_incident_t& incident) {
    if (incident.time < 0 || incident.time > kMaxTime)
        throw EBadRequest(fmt::format("An incident at {} can't be", incident.time));
    std::string bytes(kIncidentHead, '\0');
    util::store_le32(bytes.data(), incident.severity);
    return bytes + incident.message;
}

data_interval_incident_t decode_incident(std::string_view bytes, int64_t time) {
    if (bytes.size() < kIncidentHead) throw EDamaged("An incident without a severity");
    data_interval_incident_t incident;
    incident.severity = util::load_le32(bytes.data());
    incident.message = bytes.substr(kIncidentHead);
    incident.time = time;
    return incident;
}

}  // namespace tsdb
