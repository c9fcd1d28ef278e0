// How records become bytes and bytes become records.
//
// A record has one list of its fields; writing, reading, printing and comparing walk that list, and
// one overload for each kind of field says how. Everything of 32 bits or less travels as 4 bytes, a
// bool as 0 or 1 in 4 bytes, 64 bits as 8, all in host order; strings and bytes have a length of 8
// bytes in front, lists, sets and maps a count of 4.
//
// Nothing that a length or a count claims is believed before the bytes are there: memory grows with
// what arrived, and what exceeds the rest of kMaxRecordBytes is refused at once. Records that
// contain themselves (patterns, results) are read and written without recursion, so their depth
// costs memory and no stack.
//
// Include this only where codecs are instantiated.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "protocol/ioprim.h"
#include "queues/event_types.h"
#include "queues/record.h"
#include "queues/wire_error.h"
#include "tql/id.h"
#include "tql/property.h"
#include "util/time.h"

namespace tql {
struct condition_t;
struct result_t;
struct pattern_t;
}  // namespace tql
namespace tsdb {
class data_entry_t;
}

namespace queues::detail {

/// Upper bound of one record. More than any pool holds, and little enough to be no danger to the
/// machine.
inline constexpr std::uint64_t kMaxRecordBytes = std::uint64_t{1} << 30;
/// No element of a list takes fewer bytes.
inline constexpr std::uint64_t kMinElementBytes = 4;
/// What a string may reserve on the word of its length alone.
inline constexpr std::size_t kMaxTrustedBytes = std::size_t{1} << 20;
/// Records that contain themselves by way of another record recurse; this deep at most.
inline constexpr unsigned kMaxRecursion = 100;

template <class T>
inline constexpr bool is_list = false;
template <class T>
inline constexpr bool is_list<std::list<T>> = true;
template <class T>
inline constexpr bool is_list<std::vector<T>> = true;

/// Reads one record of one event.
class Reader {
  public:
    Reader(protocol::ioprim& in, event_t number)
        : in_(in), number_(number), end_(in.bytes_read() + kMaxRecordBytes) {}

    [[nodiscard]] std::uint32_t get32() { return in_.get32(); }
    [[nodiscard]] std::uint64_t get64() { return in_.get64(); }

    /// The number of elements of a list, bounded by what the record can still hold.
    [[nodiscard]] std::uint32_t get_count();
    /// How many of `count` elements may be provided for at once.
    [[nodiscard]] std::size_t trusted(std::uint32_t count);
    /// A length and that many bytes; Bytes is std::string or a vector of bytes.
    template <class Bytes>
    void get_bytes(Bytes& bytes);

    void enter();
    void leave() { --depth_; }

    [[noreturn]] void refuse(const std::string& what) const;

  private:
    protocol::ioprim& in_;
    event_t number_;
    std::uint64_t end_;
    unsigned depth_ = 0;
};

using Writer = protocol::ByteWriter;

// Kinds of fields whose codecs are no templates; in wire_values.cpp.
void get(Reader& in, std::string& field);
void get(Reader& in, std::vector<std::uint8_t>& field);
void get(Reader& in, Time& field);
void get(Reader& in, tql::id_t& field);
void get(Reader& in, tql::value_t& field);
void get(Reader& in, tsdb::data_entry_t& field);
void get(Reader& in, tql::property_map_t& field);            // an entry without a value is left out
void get(Reader& in, std::vector<tql::value_t>& field);      // likewise
void get(Reader& in, std::vector<tql::condition_t>& field);  // one without a value is refused
void put(Writer& out, std::string_view field);
void put(Writer& out, const std::vector<std::uint8_t>& field);
void put(Writer& out, const Time& field);
void put(Writer& out, const tql::id_t& field);
void put(Writer& out, const tql::value_t& field);
void put(Writer& out, const tql::property_t& field);
void put(Writer& out, const tql::property_map_t& field);
void put(Writer& out, const tsdb::data_entry_t& field);

template <class T>
requires std::is_arithmetic_v<T> || std::is_enum_v<T>
void get(Reader& in, T& field) {
    if constexpr (std::is_same_v<T, bool>)
        field = in.get32() != 0;
    else if constexpr (std::is_floating_point_v<T> && sizeof(T) == 8)
        field = std::bit_cast<T>(in.get64());
    else if constexpr (std::is_floating_point_v<T>)
        field = std::bit_cast<T>(in.get32());
    else if constexpr (sizeof(T) == 8)
        field = static_cast<T>(in.get64());
    else
        field = static_cast<T>(in.get32());
}

template <class T>
requires std::is_arithmetic_v<T> || std::is_enum_v<T>
void put(Writer& out, T field) {
    if constexpr (std::is_floating_point_v<T> && sizeof(T) == 8)
        out.put64(std::bit_cast<std::uint64_t>(field));
    else if constexpr (std::is_floating_point_v<T>)
        out.put32(std::bit_cast<std::uint32_t>(field));
    else if constexpr (sizeof(T) == 8)
        out.put64(static_cast<std::uint64_t>(field));
    else
        out.put32(static_cast<std::uint32_t>(field));
}

// Declared ahead, so that each finds the others whatever is nested in what.
template <Record R>
void get(Reader& in, R& field);
template <class T>
void get(Reader& in, std::vector<T>& field);
template <class T>
void get(Reader& in, std::list<T>& field);
template <class T>
void get(Reader& in, std::set<T>& field);
template <class K, class V>
void get(Reader& in, std::map<K, V>& field);
template <Record R>
void put(Writer& out, const R& field);
template <class T>
void put(Writer& out, const std::vector<T>& field);
template <class T>
void put(Writer& out, const std::list<T>& field);
template <class T>
void put(Writer& out, const std::set<T>& field);
template <class K, class V>
void put(Writer& out, const std::map<K, V>& field);

template <class T>
void get(Reader& in, std::vector<T>& field) {
    const std::uint32_t count = in.get_count();
    field.clear();
    field.reserve(in.trusted(count));
    for (std::uint32_t i = 0; i < count; ++i) get(in, field.emplace_back());
}

template <class T>
void get(Reader& in, std::list<T>& field) {
    const std::uint32_t count = in.get_count();
    field.clear();
    for (std::uint32_t i = 0; i < count; ++i) get(in, field.emplace_back());
}

template <class T>
void get(Reader& in, std::set<T>& field) {
    const std::uint32_t count = in.get_count();
    field.clear();
    for (std::uint32_t i = 0; i < count; ++i) {
        T element{};
        get(in, element);
        field.insert(field.end(), std::move(element));
    }
}

template <class K, class V>
void get(Reader& in, std::map<K, V>& field) {
    const std::uint32_t count = in.get_count();
    field.clear();
    for (std::uint32_t i = 0; i < count; ++i) {
        K key{};
        V value{};
        get(in, key);
        get(in, value);
        field.insert_or_assign(field.end(), std::move(key), std::move(value));
    }
}

/// A count has 32 bits; more elements than that are nobody's record.
void put_count(Writer& out, std::size_t count);

template <class Range>
void put_range(Writer& out, const Range& range) {
    put_count(out, range.size());
    for (const auto& element : range) put(out, element);
}
template <class T>
void put(Writer& out, const std::vector<T>& field) {
    put_range(out, field);
}
template <class T>
void put(Writer& out, const std::list<T>& field) {
    put_range(out, field);
}
template <class T>
void put(Writer& out, const std::set<T>& field) {
    put_range(out, field);
}
template <class K, class V>
void put(Writer& out, const std::map<K, V>& field) {
    put_count(out, field.size());
    for (const auto& [key, value] : field) {
        put(out, key);
        put(out, value);
    }
}

/// Records with a vector of their own kind among their fields.
template <class R>
inline constexpr bool contains_itself = false;
template <>
inline constexpr bool contains_itself<tql::pattern_t> = true;
template <>
inline constexpr bool contains_itself<tql::result_t> = true;

/// Reads a tree of records of one kind without recursion: the frames lie on the heap. A frame's
/// node stays where it is while the frame lives, since a vector of children grows only between two
/// of them.
template <Record R>
void get_tree(Reader& in, R& root) {
    struct Frame {
        R* node;
        int field = 0;           ///< fields before it are done
        bool counted = false;    ///< the present field is a vector of nodes and its count was read
        std::uint32_t left = 0;  ///< children of it still to come
    };
    std::vector<Frame> stack{Frame{&root}};
    while (!stack.empty()) {
        Frame& frame = stack.back();
        R* child = nullptr;
        int index = 0;
        R::fields(*frame.node, [&](std::string_view, auto& field) {
            if (child != nullptr || index++ < frame.field) return;
            if constexpr (std::is_same_v<std::remove_cvref_t<decltype(field)>, std::vector<R>>) {
                if (!frame.counted) {
                    frame.left = in.get_count();
                    frame.counted = true;
                }
                if (frame.left > 0) {
                    --frame.left;
                    child = &field.emplace_back();
                    return;
                }
                frame.counted = false;
            } else {
                get(in, field);
            }
            ++frame.field;
        });
        if (child != nullptr)
            stack.push_back(Frame{child});
        else
            stack.pop_back();
    }
}

/// The counterpart of get_tree().
template <Record R>
void put_tree(Writer& out, const R& root) {
    struct Frame {
        const R* node;
        int field = 0;
        bool counted = false;
        std::size_t next = 0;  ///< the child that comes next
    };
    std::vector<Frame> stack{Frame{&root}};
    while (!stack.empty()) {
        Frame& frame = stack.back();
        const R* child = nullptr;
        int index = 0;
        R::fields(*frame.node, [&](std::string_view, const auto& field) {
            if (child != nullptr || index++ < frame.field) return;
            if constexpr (std::is_same_v<std::remove_cvref_t<decltype(field)>, std::vector<R>>) {
                if (!frame.counted) {
                    put_count(out, field.size());
                    frame.counted = true;
                    frame.next = 0;
                }
                if (frame.next < field.size()) {
                    child = &field[frame.next++];
                    return;
                }
                frame.counted = false;
            } else {
                put(out, field);
            }
            ++frame.field;
        });
        if (child != nullptr)
            stack.push_back(Frame{child});
        else
            stack.pop_back();
    }
}

template <Record R>
void get(Reader& in, R& field) {
    if constexpr (contains_itself<R>) {
        get_tree(in, field);
    } else {
        in.enter();
        R::fields(field, [&in](std::string_view, auto& member) { get(in, member); });
        in.leave();
    }
}

template <Record R>
void put(Writer& out, const R& field) {
    if constexpr (contains_itself<R>)
        put_tree(out, field);
    else
        R::fields(field, [&out](std::string_view, const auto& member) { put(out, member); });
}

}  // namespace queues::detail
