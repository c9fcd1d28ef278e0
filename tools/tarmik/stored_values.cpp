#include "tarmik/stored_values.h"

#include <nlohmann/json.hpp>

#include "dbcache/conversions.h"
#include "mdb/database.h"
#include "mdb/errors.h"
#include "mdb/large_object.h"
#include "mdb/property_types.h"
#include "tql/names.h"
#include "tql/property_kinds.h"
#include "tql/value_text.h"
#include "wapi/json_values.h"

namespace cli {

namespace {

using nlohmann::ordered_json;
using tql::property_type_t;

/// Type ids that several kinds share, and those without a class of their own.
enum stored_type_t : uint32_t {
    stored_uint = 1,
    stored_int = 2,
    stored_enum = 5,
    stored_bool_or_real = 6,
    stored_date_or_bignum = 7,
    stored_count = 8,
    stored_series = 9,
};
/// Records of 12 bytes of head and one word.
constexpr size_t kWordRecord = 16;

/// A record read by class `Stored` as a value of kind `Wire`.
template <class Stored, class Wire>
tql::value_t convert(const mdb::RecordView& record) {
    Stored stored;
    stored.load(record.bytes());
    return std::make_unique<Wire>(record.id(),
                                  static_cast<typename Wire::value_type>(stored.value));
}

tql::value_t enumeration(const mdb::RecordView& record, uint32_t enumeration_id) {
    mdb::PropertySomething32<uint32_t, stored_enum> stored;
    stored.load(record.bytes());
    return std::make_unique<tql::property_enum_t>(record.id(), enumeration_id, stored.value, 0);
}

tql::value_t large_object(mdb::Database& database, const mdb::RecordView& record) {
    mdb::PropertyUint32 first_block;
    first_block.load(record.bytes());
    std::vector<std::byte> bytes;
    mdb::read_lob(database, first_block.value, bytes);
    auto value = std::make_unique<tql::property_lob_t>(record.id(), std::vector<uint8_t>());
    for (const std::byte byte : bytes) value->value.push_back(std::to_integer<uint8_t>(byte));
    return value;
}

/// A number with the four parts of an address.
tql::value_t address(const mdb::RecordView& record) {
    mdb::PropertyUint32 stored;
    stored.load(record.bytes());
    auto value = std::make_unique<tql::property_string_t>(record.id(), std::string());
    dbcache::IPv4Conversion::to_wire(stored, *value);
    return value;
}

tql::value_t unsigned_value(mdb::Database& database, const mdb::RecordView& record,
                            tql::value_kind_t kind) {
    switch (kind.type) {
        case property_type_t::gid:
            return convert<mdb::PropertyUint32, tql::property_gid_t>(record);
        case property_type_t::index:
            return convert<mdb::PropertyUint32, tql::property_index_t>(record);
        case property_type_t::lob:
            return large_object(database, record);
        case property_type_t::string:
            return address(record);
        default:
            return convert<mdb::PropertyUint32, tql::property_uint_t>(record);
    }
}

ordered_json mark(const mdb::RecordView& record) {
    mdb::PropertyMarkIndex stored;
    stored.load(record.bytes());
    return {{"type", "mark"},
            {"marked", stored.value.marked},
            {"prev", stored.value.prev.to_string()},
            {"next", stored.value.next.to_string()},
            {"last", stored.value.last.to_string()}};
}

tql::value_t version(const mdb::RecordView& record) {
    mdb::PropertyVersion stored;
    stored.load(record.bytes());
    return std::make_unique<tql::property_version_t>(
        record.id(), tql::version_t{stored.value.sequence, stored.value.counter});
}

tql::value_t reference(const mdb::RecordView& record) {
    mdb::PropertyNodeId stored;
    stored.load(record.bytes());
    return std::make_unique<tql::property_object_t>(record.id(),
                                                    tql::id_t::from_node_id(stored.value));
}

tql::value_t reference_set(const mdb::RecordView& record) {
    mdb::PropertyNodeIdList stored;
    stored.load(record.bytes());
    auto value = std::make_unique<tql::property_object_set_t>(record.id(), std::set<tql::id_t>());
    for (const NodeId& id : stored.value) value->value.insert(tql::id_t::from_node_id(id));
    return value;
}

ordered_json unknown(const mdb::RecordView& record) {
    std::vector<uint8_t> bytes;
    for (const std::byte byte : record.payload()) bytes.push_back(std::to_integer<uint8_t>(byte));
    return {{"type", record.type_id()}, {"bytes", tql::to_base64(bytes)}};
}

bool is_boolean(const mdb::RecordView& record, tql::value_kind_t kind) {
    return kind.type == property_type_t::boolean ||
           (kind.type != property_type_t::real && record.bytes().size() == kWordRecord);
}

bool is_date(const mdb::RecordView& record, tql::value_kind_t kind) {
    return kind.type == property_type_t::date ||
           (kind.type != property_type_t::bignum && record.bytes().size() == kWordRecord);
}

/// None for types that queries have no value for.
tql::value_t stored_value(mdb::Database& database, const mdb::RecordView& record,
                          tql::value_kind_t kind) {
    switch (record.type_id()) {
        case stored_uint:
            return unsigned_value(database, record, kind);
        case stored_int:
            return kind.type == property_type_t::action
                       ? convert<mdb::PropertyInt32, tql::property_action_t>(record)
                       : convert<mdb::PropertyInt32, tql::property_int_t>(record);
        case mdb::PropertyString::kTypeId:
            return convert<mdb::PropertyString, tql::property_string_t>(record);
        case mdb::PropertyNodeId::kTypeId:
            return reference(record);
        case stored_enum:  // nodeType is stored so, although it is a number for everybody
            return kind.type == property_type_t::uint
                       ? convert<mdb::PropertySomething32<uint32_t, stored_enum>,
                                 tql::property_uint_t>(record)
                       : enumeration(record, kind.enumeration);
        case stored_bool_or_real:
            return is_boolean(record, kind)
                       ? convert<mdb::PropertyBool, tql::property_boolean_t>(record)
                       : convert<mdb::PropertyDouble, tql::property_real_t>(record);
        case stored_date_or_bignum:
            return is_date(record, kind)
                       ? convert<mdb::PropertyDate, tql::property_date_t>(record)
                       : convert<mdb::PropertyBigNum, tql::property_bignum_t>(record);
        case stored_count:
            return convert<mdb::PropertyCount, tql::property_uint_t>(record);
        case stored_series:
            return convert<mdb::PropertySeries, tql::property_uint_t>(record);
        case mdb::PropertyVersion::kTypeId:
            return version(record);
        case mdb::PropertyBlob::kTypeId:
            return convert<mdb::PropertyBlob, tql::property_blob_t>(record);
        case mdb::PropertySnmpOid::kTypeId:
            return convert<mdb::PropertySnmpOid, tql::property_oid_t>(record);
        case mdb::PropertyStringList::kTypeId:
            return convert<mdb::PropertyStringList, tql::property_string_list_t>(record);
        case mdb::PropertyNodeIdList::kTypeId:
            return reference_set(record);
        default:
            return {};
    }
}

}  // namespace

ordered_json stored_value_to_json(mdb::Database& database, uint32_t class_number,
                                  const mdb::RecordView& record) {
    if (record.is_null()) return nullptr;
    if (record.type_id() == mdb::PropertyMarkIndex::kTypeId) return mark(record);
    if (record.type_id() == mdb::PropertyUint64::kTypeId) {
        mdb::PropertyUint64 stored;
        stored.load(record.bytes());
        return stored.value;
    }
    const tql::value_t value =
        stored_value(database, record, tql::property_kind(class_number, record.id()));
    return value ? wapi::value_to_json(class_number, *value) : unknown(record);
}

}  // namespace cli
