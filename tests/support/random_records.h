// Fills records with random content by walking their field lists.
#pragma once

#include <cstdint>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "queues/record.h"
#include "queues/records/control.h"
#include "queues/records/tsdb_records.h"
#include "support/rng.h"
#include "tql/pattern.h"
#include "tql/property_kinds.h"
#include "tql/result.h"
#include "util/time.h"

namespace support {

inline constexpr unsigned kMaxElements = 3;

/// How deep what contains itself may still go.
struct Filler {
    Rng& rng;
    int depth = 3;
};

inline void fill(Filler& f, std::string& field) {
    field.resize(f.rng.below(12));
    for (char& c : field) c = static_cast<char>(f.rng.next());
}
inline void fill(Filler& f, std::vector<std::uint8_t>& field) {
    field.resize(f.rng.below(12));
    for (std::uint8_t& byte : field) byte = static_cast<std::uint8_t>(f.rng.next());
}
inline void fill(Filler& f, Time& field) {
    field = Time(static_cast<std::int32_t>(f.rng.next()),
                 static_cast<std::int32_t>(f.rng.below(1'000'000)));
}
inline void fill(Filler& f, tql::id_t& field) {
    field.resize(f.rng.below(4));
    for (std::size_t i = 0; i < field.size(); ++i)
        field[i] = static_cast<std::uint32_t>(f.rng.next());
}

template <class T>
requires std::is_arithmetic_v<T> || std::is_enum_v<T>
void fill(Filler& f, T& field) {
    if constexpr (std::is_same_v<T, bool>)
        field = f.rng.chance(50);
    else if constexpr (std::is_floating_point_v<T>)
        field = static_cast<T>(static_cast<std::int32_t>(f.rng.next())) / 8;
    else
        field = static_cast<T>(f.rng.next());
}

template <queues::Record R>
void fill(Filler& f, R& field);
template <class T>
void fill(Filler& f, std::vector<T>& field);
template <class T>
void fill(Filler& f, std::list<T>& field);
template <class T>
void fill(Filler& f, std::set<T>& field);
template <class Map>
requires requires {
    typename Map::mapped_type;
}
void fill(Filler& f, Map& field);

inline void fill(Filler& f, tql::value_t& field) {
    static constexpr std::uint32_t kFirst = 7;
    static constexpr std::uint32_t kLast = 25;
    field = tql::make_value(
        static_cast<tql::property_type_t>(kFirst + f.rng.below(kLast - kFirst + 1)));
    fill(f, field->property);
    fill(f, field->is_null);
    fill(f, field->flags);
    tql::visit_kind(*field, [&f](auto& value) {
        using Kind = std::remove_cvref_t<decltype(value)>;
        if constexpr (std::is_same_v<Kind, tql::property_bignum_t>) {
            std::string bytes;
            fill(f, bytes);
            value.value = BigNum(std::string_view(bytes));
        } else {
            fill(f, value.value);
        }
        if constexpr (std::is_same_v<Kind, tql::property_enum_t>) fill(f, value.enumeration);
        if constexpr (std::is_same_v<Kind, tql::property_object_t>) fill(f, value.origin);
        if constexpr (std::is_same_v<Kind, tql::property_object_set_t>)
            for (const tql::id_t& id : value.value)
                if (f.rng.chance(50)) value.origins[id] = {tql::id_t(1, 2), tql::id_t(3, 4)};
    });
}

inline void fill(Filler& f, tsdb::data_entry_t& field) {
    const auto made = [&f]<class Point>(std::unique_ptr<Point> point) {
        fill(f, *point);
        return tsdb::data_entry_t(std::move(point));
    };
    switch (f.rng.below(4)) {
        case 0:
            field = {};
            break;
        case 1:
            field = made(std::make_unique<tsdb::data_interval_incident_t>());
            break;
        case 2:
            field = made(std::make_unique<tsdb::data_interval_continuous_t>());
            break;
        default:
            field = made(std::make_unique<tsdb::data_interval_enum_t>());
    }
}

template <class T>
inline constexpr bool nests_itself =
    std::is_same_v<T, tql::pattern_t> || std::is_same_v<T, tql::result_t> ||
    std::is_same_v<T, control::Metric_Group> || std::is_same_v<T, control::Metric_Table>;

template <class List>
void fill_list(Filler& f, List& field) {
    constexpr bool kDeep = nests_itself<typename List::value_type>;
    field.clear();
    if (kDeep && f.depth == 0) return;
    f.depth -= kDeep ? 1 : 0;
    for (std::uint64_t n = f.rng.below(kMaxElements + 1); n > 0; --n) fill(f, field.emplace_back());
    f.depth += kDeep ? 1 : 0;
}
template <class T>
void fill(Filler& f, std::vector<T>& field) {
    fill_list(f, field);
}
template <class T>
void fill(Filler& f, std::list<T>& field) {
    fill_list(f, field);
}
template <class T>
void fill(Filler& f, std::set<T>& field) {
    for (std::uint64_t n = f.rng.below(kMaxElements + 1); n > 0; --n) {
        T element{};
        fill(f, element);
        field.insert(element);
    }
}
template <class Map>
requires requires {
    typename Map::mapped_type;
}
void fill(Filler& f, Map& field) {
    for (std::uint64_t n = f.rng.below(kMaxElements + 1); n > 0; --n) {
        typename Map::key_type key{};
        fill(f, key);
        fill(f, field[key]);
    }
}
template <queues::Record R>
void fill(Filler& f, R& field) {
    R::fields(field, [&f](std::string_view, auto& member) { fill(f, member); });
}

}  // namespace support
