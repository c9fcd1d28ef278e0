// Loads and stores of integers in a fixed byte order, at any alignment. Everything that lies in a
// file is big-endian and goes through load_be*/store_be*; the little-endian forms serve records
// that are declared so. Nothing here checks bounds: the caller owns the range.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace util {

namespace detail {

template <class T>
[[nodiscard]] constexpr T swap_bytes(T value) noexcept {
    static_assert(std::is_unsigned_v<T>);
    if constexpr (sizeof(T) == 1)
        return value;
    else if constexpr (sizeof(T) == 2)
        return static_cast<T>(__builtin_bswap16(value));
    else if constexpr (sizeof(T) == 4)
        return __builtin_bswap32(value);
    else
        return __builtin_bswap64(value);
}

template <class T, std::endian order>
[[nodiscard]] T load(const void* from) noexcept {
    T value;
    std::memcpy(&value, from, sizeof value);
    return order == std::endian::native ? value : swap_bytes(value);
}

template <class T, std::endian order>
void store(void* to, T value) noexcept {
    if (order != std::endian::native) value = swap_bytes(value);
    std::memcpy(to, &value, sizeof value);
}

}  // namespace detail

/// The big-endian number in the 2, 4 or 8 bytes at `from`.
[[nodiscard]] inline uint16_t load_be16(const void* from) noexcept {
    return detail::load<uint16_t, std::endian::big>(from);
}
[[nodiscard]] inline uint32_t load_be32(const void* from) noexcept {
    return detail::load<uint32_t, std::endian::big>(from);
}
[[nodiscard]] inline uint64_t load_be64(const void* from) noexcept {
    return detail::load<uint64_t, std::endian::big>(from);
}

/// Writes `value` into the 2, 4 or 8 bytes at `to`, most significant byte first.
inline void store_be16(void* to, uint16_t value) noexcept {
    detail::store<uint16_t, std::endian::big>(to, value);
}
inline void store_be32(void* to, uint32_t value) noexcept {
    detail::store<uint32_t, std::endian::big>(to, value);
}
inline void store_be64(void* to, uint64_t value) noexcept {
    detail::store<uint64_t, std::endian::big>(to, value);
}

/// The little-endian number in the 2, 4 or 8 bytes at `from`.
[[nodiscard]] inline uint16_t load_le16(const void* from) noexcept {
    return detail::load<uint16_t, std::endian::little>(from);
}
[[nodiscard]] inline uint32_t load_le32(const void* from) noexcept {
    return detail::load<uint32_t, std::endian::little>(from);
}
[[nodiscard]] inline uint64_t load_le64(const void* from) noexcept {
    return detail::load<uint64_t, std::endian::little>(from);
}

/// Writes `value` into the 2, 4 or 8 bytes at `to`, least significant byte first.
inline void store_le16(void* to, uint16_t value) noexcept {
    detail::store<uint16_t, std::endian::little>(to, value);
}
inline void store_le32(void* to, uint32_t value) noexcept {
    detail::store<uint32_t, std::endian::little>(to, value);
}
inline void store_le64(void* to, uint64_t value) noexcept {
    detail::store<uint64_t, std::endian::little>(to, value);
}

}  // namespace util
