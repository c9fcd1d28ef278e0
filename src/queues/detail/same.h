// Equality of records, field by field. Include this only where codecs are instantiated.
#pragma once

#include <algorithm>
#include <bit>
#include <list>
#include <map>
#include <set>
#include <string_view>
#include <type_traits>
#include <vector>

#include "queues/detail/wire.h"

namespace queues::detail {

[[nodiscard]] bool same(const tsdb::data_entry_t& left, const tsdb::data_entry_t& right);

/// Plain values by their own equality, but floats bit for bit: a value that can be read back is the
/// same value.
template <class T>
requires(!Record<T> || contains_itself<T>) [[nodiscard]] bool same(const T& left, const T& right) {
    if constexpr (std::is_same_v<T, float>)
        return std::bit_cast<std::uint32_t>(left) == std::bit_cast<std::uint32_t>(right);
    else if constexpr (std::is_same_v<T, double>)
        return std::bit_cast<std::uint64_t>(left) == std::bit_cast<std::uint64_t>(right);
    else
        return left == right;
}

template <Record R>
requires(!contains_itself<R>) [[nodiscard]] bool same(const R& left, const R& right);
template <class T>
[[nodiscard]] bool same(const std::vector<T>& left, const std::vector<T>& right);
template <class T>
[[nodiscard]] bool same(const std::list<T>& left, const std::list<T>& right);
template <class K, class V>
[[nodiscard]] bool same(const std::map<K, V>& left, const std::map<K, V>& right);

template <class Range>
[[nodiscard]] bool same_range(const Range& left, const Range& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const auto& a, const auto& b) { return same(a, b); });
}
template <class T>
bool same(const std::vector<T>& left, const std::vector<T>& right) {
    return same_range(left, right);
}
template <class T>
bool same(const std::list<T>& left, const std::list<T>& right) {
    return same_range(left, right);
}
template <class K, class V>
bool same(const std::map<K, V>& left, const std::map<K, V>& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const auto& a, const auto& b) {
                          return a.first == b.first && same(a.second, b.second);
                      });
}

template <Record R>
requires(!contains_itself<R>) bool same(const R& left, const R& right) {
    // One pass notes where the left fields lie, the other meets the right ones in the same order.
    std::vector<const void*> members;
    R::fields(left,
              [&members](std::string_view, const auto& member) { members.push_back(&member); });
    bool equal = true;
    std::size_t index = 0;
    R::fields(right, [&](std::string_view, const auto& member) {
        using Member = std::remove_cvref_t<decltype(member)>;
        equal = equal && same(*static_cast<const Member*>(members[index]), member);
        ++index;
    });
    return equal;
}

}  // namespace queues::detail
