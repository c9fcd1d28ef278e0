// The concrete properties, one class for each kind of stored value. A kind is described once, by a
// codec: type id, memory value, size and bytes. Property classes and lists of a kind both come from
// its codec.
#pragma once

#include <algorithm>
#include <bit>
#include <compare>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "mdb/property.h"
#include "util/big_num.h"
#include "util/node_id.h"

namespace common {
/// A counter as objects store it.
using count_t = uint32_t;
}  // namespace common

namespace mdb {

namespace codec {

// Each codec has: value_t; kTypeId; size(value), the bytes of the payload without fill;
// store(value, to), which writes exactly these; load(from, value), which returns false when `from`
// is too short for the value.

/// One 32-bit word. Of a 64-bit memory value the low half is stored and read back zero-extended.
template <class V, uint32_t N>
struct Word32 {
    using value_t = V;
    static constexpr uint32_t kTypeId = N;
    static uint32_t size(const V&) { return 4; }
    static void store(const V& value, std::byte* to) {
        util::store_be32(to, static_cast<uint32_t>(value));
    }
    static bool load(std::span<const std::byte> from, V& value) {
        if (from.size() < 4) return false;
        value = static_cast<V>(util::load_be32(from.data()));
        return true;
    }
};

/// One 64-bit word.
template <class V, uint32_t N>
struct Word64 {
    using value_t = V;
    static constexpr uint32_t kTypeId = N;
    static uint32_t size(const V&) { return 8; }
    static void store(const V& value, std::byte* to) {
        util::store_be64(to, std::bit_cast<uint64_t>(value));
    }
    static bool load(std::span<const std::byte> from, V& value) {
        if (from.size() < 8) return false;
        value = std::bit_cast<V>(util::load_be64(from.data()));
        return true;
    }
};

/// Bytes and a NUL. size() throws error_internal for a text with a NUL in it.
struct Text {
    using value_t = std::string;
    static constexpr uint32_t kTypeId = 3;
    static uint32_t size(const std::string& value);
    static void store(const std::string& value, std::byte* to);
    static bool load(std::span<const std::byte> from, std::string& value);
    /// The text where it lies; none if its end is missing.
    static std::optional<std::string_view> view(std::span<const std::byte> from);
};

struct NodeIdWords {
    using value_t = NodeId;
    static constexpr uint32_t kTypeId = 4;
    static uint32_t size(const NodeId&) { return 8; }
    static void store(const NodeId& value, std::byte* to);
    static bool load(std::span<const std::byte> from, NodeId& value);
};

/// One byte; any but zero reads as true.
struct Boolean {
    using value_t = bool;
    static constexpr uint32_t kTypeId = 6;
    static uint32_t size(const bool&) { return 1; }
    static void store(const bool& value, std::byte* to) { *to = std::byte{value}; }
    static bool load(std::span<const std::byte> from, bool& value) {
        if (from.empty()) return false;
        value = from[0] != std::byte{0};
        return true;
    }
};

/// Count of bytes, then the magnitude, most significant byte first; room is kept for whole words.
struct BigNumber {
    using value_t = BigNum;
    static constexpr uint32_t kTypeId = 7;
    static uint32_t size(const BigNum& value);
    static void store(const BigNum& value, std::byte* to);
    static bool load(std::span<const std::byte> from, BigNum& value);
};

}  // namespace codec

/// The two numbers of a version: a sequence of the ring and a counter in it, compared in this
/// order.
struct StoredVersion {
    uint64_t sequence = 0;
    uint64_t counter = 0;
    friend auto operator<=>(const StoredVersion&, const StoredVersion&) = default;
};

/// The value of a mark record: where an object stands in one of the mark lists, and whether it is
/// marked itself.
struct MarkLinks {
    NodeId prev;
    NodeId next;
    NodeId last;
    bool marked = false;
    friend bool operator==(const MarkLinks&, const MarkLinks&) = default;
};

namespace codec {

/// A word with the value 1, then both numbers.
struct VersionPair {
    using value_t = StoredVersion;
    static constexpr uint32_t kTypeId = 10;
    static uint32_t size(const StoredVersion&) { return 20; }
    static void store(const StoredVersion& value, std::byte* to);
    static bool load(std::span<const std::byte> from, StoredVersion& value);
};

/// Count of bytes, then the bytes.
struct Blob {
    using value_t = std::vector<uint8_t>;
    static constexpr uint32_t kTypeId = 13;
    static uint32_t size(const value_t& value) { return 4 + static_cast<uint32_t>(value.size()); }
    static void store(const value_t& value, std::byte* to);
    static bool load(std::span<const std::byte> from, value_t& value);
};

/// Three ids cut to five bytes and a flag. store() throws error_internal for an id whose first word
/// is above 255.
struct Mark {
    using value_t = MarkLinks;
    static constexpr uint32_t kTypeId = 14;
    static uint32_t size(const MarkLinks&) { return mark_layout::kLength; }
    static void store(const MarkLinks& value, std::byte* to);
    static bool load(std::span<const std::byte> from, MarkLinks& value);
};

/// A count and elements of codec C, each at a multiple of 8 from the start of the payload.
template <class C>
struct ListOf {
    using value_t = std::vector<typename C::value_t>;
    static constexpr uint32_t kTypeId = C::kTypeId + list_layout::kTypeDistance;

    static uint32_t size(const value_t& value) {
        uint32_t end = list_layout::elements;
        for (const auto& element : value) end += round_up_to_record(C::size(element));
        return end;
    }
    static void store(const value_t& value, std::byte* to) {
        util::store_be32(to + list_layout::count, static_cast<uint32_t>(value.size()));
        uint32_t at = list_layout::elements;
        for (const auto& element : value) {
            C::store(element, to + at);
            at += round_up_to_record(C::size(element));
        }
    }
    static bool load(std::span<const std::byte> from, value_t& value) {
        if (from.size() < list_layout::elements) return false;
        const uint32_t count = util::load_be32(&from[list_layout::count]);
        // Every element takes 8 bytes or more, but the last one may end with the payload.
        if (count > from.size() / record_layout::kAlignment) return false;
        value.clear();
        value.reserve(count);
        size_t at = list_layout::elements;
        for (uint32_t i = 0; i < count; ++i) {
            typename C::value_t element{};
            if (at > from.size() || !C::load(from.subspan(at), element)) return false;
            at += round_up_to_record(C::size(element));
            value.push_back(std::move(element));
        }
        return true;
    }
};

}  // namespace codec

/// Throws error_need_repair: the record of property `id` is too short for type `type_id`, or holds
/// no such value.
[[noreturn]] void throw_bad_record(uint32_t id, uint32_t type_id, size_t record_length);

/// The property of one codec: `value` and its record form.
template <class Codec>
class ValueProperty : public Property {
  public:
    using codec_type = Codec;
    using value_t = typename Codec::value_t;
    static constexpr uint32_t kTypeId = Codec::kTypeId;

    explicit ValueProperty(uint32_t property_id = 0, value_t initial = {})
        : Property(property_id), value(std::move(initial)) {}

    [[nodiscard]] uint32_t type_id() const override { return kTypeId; }
    [[nodiscard]] uint32_t payload_size(uint32_t offset) const override {
        return round_up_to_record(offset + Codec::size(value)) - offset;
    }
    void store(std::span<std::byte> record) const override {
        store_head(record);
        const auto payload = record.subspan(record_layout::payload);
        std::fill(payload.begin(), payload.end(), std::byte{0});
        Codec::store(value, payload.data());
    }
    void load(std::span<const std::byte> record) override {
        const RecordView view(record);
        id = view.id();
        if (!Codec::load(view.payload(), value)) throw_bad_record(id, kTypeId, record.size());
    }

    value_t value;
};

template <class V, uint32_t N>
class PropertySomething32 : public ValueProperty<codec::Word32<V, N>> {
  public:
    using ValueProperty<codec::Word32<V, N>>::ValueProperty;
};

template <class V, uint32_t N>
class PropertySomething64 : public ValueProperty<codec::Word64<V, N>> {
  public:
    using ValueProperty<codec::Word64<V, N>>::ValueProperty;
};

/// All enumerations share one type id: the schema knows which one an id means.
template <class T>
requires std::is_enum_v<T>
class PropertyEnum : public ValueProperty<codec::Word32<T, 5>> {
  public:
    using ValueProperty<codec::Word32<T, 5>>::ValueProperty;
};

class PropertyString : public ValueProperty<codec::Text> {
  public:
    using ValueProperty::ValueProperty;
};

class PropertyNodeId : public ValueProperty<codec::NodeIdWords> {
  public:
    using ValueProperty::ValueProperty;
};

class PropertyBool : public ValueProperty<codec::Boolean> {
  public:
    using ValueProperty::ValueProperty;
};

/// Shares its type id with PropertyBool: a record of the one is read as the other without an error.
class PropertyDouble : public ValueProperty<codec::Word64<double, 6>> {
  public:
    using ValueProperty::ValueProperty;
};

/// Shares its type id with dates.
class PropertyBigNum : public ValueProperty<codec::BigNumber> {
  public:
    using ValueProperty::ValueProperty;
};

class PropertyVersion : public ValueProperty<codec::VersionPair> {
  public:
    using ValueProperty::ValueProperty;
};

class PropertyBlob : public ValueProperty<codec::Blob> {
  public:
    using ValueProperty::ValueProperty;
};

class PropertyMarkIndex : public ValueProperty<codec::Mark> {
  public:
    using ValueProperty::ValueProperty;
};

/// The values of many T under one id.
template <class T>
class PropertyList : public ValueProperty<codec::ListOf<typename T::codec_type>> {
  public:
    using ValueProperty<codec::ListOf<typename T::codec_type>>::ValueProperty;
};

class PropertySnmpOid : public PropertyList<PropertySomething32<uint32_t, 1>> {
  public:
    using PropertyList::PropertyList;
};

// The instances that objects hold, by their meaning.
using PropertyUint32 = PropertySomething32<uint32_t, 1>;
using PropertyInt32 = PropertySomething32<int32_t, 2>;
/// Seconds since 1970. Only the low 32 bits are stored.
using PropertyDate = PropertySomething32<int64_t, 7>;
using PropertyCount = PropertySomething32<common::count_t, 8>;
/// The number of a time series; all ones means none.
using PropertySeries = PropertySomething32<uint32_t, 9>;
using PropertyUint64 = PropertySomething64<uint64_t, 11>;
using PropertyStringList = PropertyList<PropertyString>;
using PropertyNodeIdList = PropertyList<PropertyNodeId>;

}  // namespace mdb
