// Codecs of the field kinds that are no templates: strings, bytes, times, ids, typed values and
// data points.
#include <algorithm>
#include <limits>

#include "queues/detail/wire.h"
#include "queues/records/tsdb_records.h"
#include "tql/pattern.h"
#include "tql/property_kinds.h"

namespace queues::detail {

void Reader::refuse(const std::string& what) const {
    throw EMalformedRecord(fmt::format("Malformed record in {}: {}", event_name(number_), what));
}

std::uint32_t Reader::get_count() {
    const std::uint32_t count = get32();
    const std::uint64_t used = in_.bytes_read();
    const std::uint64_t room = used < end_ ? end_ - used : 0;
    if (count > room / kMinElementBytes)
        refuse(fmt::format("a list of {} elements, where {} bytes may follow", count, room));
    return count;
}

std::size_t Reader::trusted(std::uint32_t count) {
    if (count == 0) return 0;
    return std::min<std::size_t>(count, in_.get_available() / kMinElementBytes);
}

template <class Bytes>
void Reader::get_bytes(Bytes& bytes) {
    const std::uint64_t size = get64();
    const std::uint64_t used = in_.bytes_read();
    const std::uint64_t room = used < end_ ? end_ - used : 0;
    if (size > room)
        refuse(fmt::format("a string of {} bytes, where {} bytes may follow", size, room));
    bytes.clear();
    bytes.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(size, kMaxTrustedBytes)));
    in_.get_runs(size, [&bytes](const std::uint8_t* run, std::size_t length) {
        bytes.insert(bytes.end(), run, run + length);
    });
}

void Reader::enter() {
    if (++depth_ > kMaxRecursion)
        refuse(fmt::format("records nested deeper than {}", kMaxRecursion));
}

void put_count(Writer& out, std::size_t count) {
    error::check(count <= std::numeric_limits<std::uint32_t>::max(),
                 "A list of {} elements has no place in a record", count);
    out.put32(static_cast<std::uint32_t>(count));
}

void get(Reader& in, std::string& field) {
    in.get_bytes(field);
}

void put(Writer& out, std::string_view field) {
    out.put64(field.size());
    out.put_bytes(field.data(), field.size());
}

void get(Reader& in, std::vector<std::uint8_t>& field) {
    in.get_bytes(field);
}

void put(Writer& out, const std::vector<std::uint8_t>& field) {
    out.put64(field.size());
    out.put_bytes(field.data(), field.size());
}

void get(Reader& in, Time& field) {
    const auto seconds = static_cast<std::int32_t>(in.get32());
    const auto microseconds = static_cast<std::int32_t>(in.get32());
    if (microseconds < 0) in.refuse(fmt::format("a time of {} microseconds", microseconds));
    field = Time(seconds, microseconds);
}

void put(Writer& out, const Time& field) {
    put(out, field.seconds());
    put(out, field.microseconds());
}

void get(Reader& in, tql::id_t& field) {
    const std::uint32_t count = in.get32();
    if (count > tql::id_t::kCapacity) in.refuse(fmt::format("an id of {} numbers", count));
    field.clear();
    for (std::uint32_t i = 0; i < count; ++i) field.push_back(in.get32());
}

void put(Writer& out, const tql::id_t& field) {
    out.put32(static_cast<std::uint32_t>(field.size()));
    for (const std::uint32_t number : field) out.put32(number);
}

namespace {

// Payloads of typed values: what isn't told apart here travels as its type says.
template <class Kind>
void get_payload(Reader& in, Kind& value) {
    get(in, value.value);
}
template <class Kind>
void put_payload(Writer& out, const Kind& value) {
    put(out, value.value);
}

void get_payload(Reader& in, tql::property_object_set_t& value) {
    const std::uint32_t count = in.get_count();
    for (std::uint32_t i = 0; i < count; ++i) {
        tql::id_t id;
        tql::entry_origin_t origin;
        get(in, id);
        get(in, origin.domain_id);
        get(in, origin.user_id);
        if (origin != tql::entry_origin_t{}) value.origins.insert_or_assign(id, origin);
        value.value.insert(value.value.end(), id);
    }
}
void put_payload(Writer& out, const tql::property_object_set_t& value) {
    put_count(out, value.value.size());
    for (const tql::id_t& id : value.value) {
        const auto found = value.origins.find(id);
        const tql::entry_origin_t origin =
            found == value.origins.end() ? tql::entry_origin_t{} : found->second;
        put(out, id);
        put(out, origin.domain_id);
        put(out, origin.user_id);
    }
}

void get_payload(Reader& in, tql::property_object_t& value) {
    get(in, value.value);
    get(in, value.origin);
}
void put_payload(Writer& out, const tql::property_object_t& value) {
    put(out, value.value);
    put(out, value.origin);
}

void get_payload(Reader& in, tql::property_enum_t& value) {
    get(in, value.enumeration);
    get(in, value.value);
}
void put_payload(Writer& out, const tql::property_enum_t& value) {
    put(out, value.enumeration);
    put(out, value.value);
}

void get_payload(Reader& in, tql::property_bignum_t& value) {
    std::string bytes;
    get(in, bytes);
    value.value = BigNum(std::string_view(bytes));
}
void put_payload(Writer& out, const tql::property_bignum_t& value) {
    put(out, std::string_view(value.value.to_bytes(BigNum::kStreamMinimumLength)));
}

std::unique_ptr<tsdb::data_interval_t> get_point(Reader& in, tsdb::interval_type_t type) {
    const auto read = [&in](auto point) -> std::unique_ptr<tsdb::data_interval_t> {
        get(in, *point);
        return point;
    };
    switch (type) {
        case tsdb::interval_type_t::none:
            return nullptr;
        case tsdb::interval_type_t::incident:
            return read(std::make_unique<tsdb::data_interval_incident_t>());
        case tsdb::interval_type_t::continuous:
            return read(std::make_unique<tsdb::data_interval_continuous_t>());
        case tsdb::interval_type_t::enumerated:
            return read(std::make_unique<tsdb::data_interval_enum_t>());
    }
    in.refuse(fmt::format("a data entry of type {}", static_cast<std::uint32_t>(type)));
}

}  // namespace

void get(Reader& in, tql::value_t& field) {
    const std::uint32_t type = in.get32();
    field = tql::value_t();
    if (type == 0) return;
    field = tql::make_value(static_cast<tql::property_type_t>(type));
    if (!field) in.refuse(fmt::format("a property value of type {}", type));
    get(in, field->property);
    get(in, field->is_null);
    get(in, field->flags);
    tql::visit_kind(*field, [&in](auto& value) { get_payload(in, value); });
}

void put(Writer& out, const tql::value_t& field) {
    if (field)
        put(out, *field);
    else
        put(out, tql::property_type_t::none);
}

void put(Writer& out, const tql::property_t& field) {
    put(out, field.type());
    put(out, field.property);
    put(out, field.is_null);
    put(out, field.flags);
    tql::visit_kind(field, [&out](const auto& value) { put_payload(out, value); });
}

void put(Writer& out, const tql::property_map_t& field) {
    put_count(out, field.size());
    for (const auto& [number, value] : field) {
        out.put32(number);
        put(out, value);
    }
}

void get(Reader& in, tql::property_map_t& field) {
    const std::uint32_t count = in.get_count();
    field.clear();
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t property = in.get32();
        tql::value_t value;
        get(in, value);
        if (value) field.insert_or_assign(field.end(), property, std::move(value));
    }
}

void get(Reader& in, std::vector<tql::value_t>& field) {
    const std::uint32_t count = in.get_count();
    field.clear();
    field.reserve(in.trusted(count));
    for (std::uint32_t i = 0; i < count; ++i) {
        tql::value_t value;
        get(in, value);
        if (value) field.push_back(std::move(value));
    }
}

void get(Reader& in, std::vector<tql::condition_t>& field) {
    const std::uint32_t count = in.get_count();
    field.clear();
    field.reserve(in.trusted(count));
    for (std::uint32_t i = 0; i < count; ++i) {
        tql::condition_t& condition = field.emplace_back();
        get(in, condition);
        if (!condition.value) in.refuse("a condition without a value");
    }
}

void get(Reader& in, tsdb::data_entry_t& field) {
    tsdb::interval_type_t type{};
    get(in, type);
    field = get_point(in, type);
}

void put(Writer& out, const tsdb::data_entry_t& field) {
    put(out, field ? field->type() : tsdb::interval_type_t::none);
    if (!field) return;
    switch (field->type()) {
        case tsdb::interval_type_t::none:
            break;
        case tsdb::interval_type_t::incident:
            return put(out, static_cast<const tsdb::data_interval_incident_t&>(*field));
        case tsdb::interval_type_t::continuous:
            return put(out, static_cast<const tsdb::data_interval_continuous_t&>(*field));
        case tsdb::interval_type_t::enumerated:
            return put(out, static_cast<const tsdb::data_interval_enum_t&>(*field));
    }
}

}  // namespace queues::detail
