#include "mdb/property_types.h"

#include <cstring>
#include <fmt/format.h>

#include "mdb/errors.h"

namespace mdb {

void throw_bad_record(uint32_t id, uint32_t type_id, size_t record_length) {
    throw error_need_repair(
        fmt::format("Property {} has a record of {} bytes that holds no value of type {}", id,
                    record_length, type_id));
}

namespace codec {

namespace {

const unsigned char* as_chars(const std::byte* bytes) {
    return reinterpret_cast<const unsigned char*>(bytes);
}

}  // namespace

uint32_t Text::size(const std::string& value) {
    if (value.find('\0') != std::string::npos)
        throw error_internal("Attempt to store a text that holds a NUL");
    return static_cast<uint32_t>(value.size()) + 1;
}

void Text::store(const std::string& value, std::byte* to) {
    std::memcpy(to, value.c_str(), value.size() + 1);
}

bool Text::load(std::span<const std::byte> from, std::string& value) {
    const std::optional<std::string_view> text = view(from);
    if (text) value.assign(*text);
    return text.has_value();
}

std::optional<std::string_view> Text::view(std::span<const std::byte> from) {
    const void* end = from.empty() ? nullptr : std::memchr(from.data(), 0, from.size());
    if (end == nullptr) return std::nullopt;
    const auto* begin = reinterpret_cast<const char*>(from.data());
    return std::string_view(begin, static_cast<size_t>(static_cast<const char*>(end) - begin));
}

void NodeIdWords::store(const NodeId& value, std::byte* to) {
    util::store_be32(to, value.first);
    util::store_be32(to + 4, value.second);
}

bool NodeIdWords::load(std::span<const std::byte> from, NodeId& value) {
    if (from.size() < 8) return false;
    value = {util::load_be32(from.data()), util::load_be32(from.data() + 4)};
    return true;
}

uint32_t BigNumber::size(const BigNum& value) {
    return 4 + 4 * static_cast<uint32_t>(value.length());
}

void BigNumber::store(const BigNum& value, std::byte* to) {
    const std::span<uint8_t> room(reinterpret_cast<uint8_t*>(to + 4), 4 * value.length());
    const size_t count = value.bn_get_data(room);
    util::store_be32(to, static_cast<uint32_t>(count));
}

bool BigNumber::load(std::span<const std::byte> from, BigNum& value) {
    if (from.size() < 4) return false;
    const uint32_t count = util::load_be32(from.data());
    if (count > from.size() - 4) return false;
    value = BigNum(std::span<const uint8_t>(as_chars(from.data() + 4), count));
    return true;
}

namespace {
/// The word ahead of the two numbers of a version.
constexpr uint32_t kVersionForm = 1;
}  // namespace

void VersionPair::store(const StoredVersion& value, std::byte* to) {
    util::store_be32(to, kVersionForm);
    util::store_be64(to + 4, value.sequence);
    util::store_be64(to + 12, value.counter);
}

bool VersionPair::load(std::span<const std::byte> from, StoredVersion& value) {
    if (from.size() < 20 || util::load_be32(from.data()) != kVersionForm) return false;
    value = {util::load_be64(from.data() + 4), util::load_be64(from.data() + 12)};
    return true;
}

void Blob::store(const value_t& value, std::byte* to) {
    util::store_be32(to, static_cast<uint32_t>(value.size()));
    if (!value.empty()) std::memcpy(to + 4, value.data(), value.size());
}

bool Blob::load(std::span<const std::byte> from, value_t& value) {
    if (from.size() < 4) return false;
    const uint32_t count = util::load_be32(from.data());
    if (count > from.size() - 4) return false;
    const unsigned char* bytes = as_chars(from.data() + 4);
    value.assign(bytes, bytes + count);
    return true;
}

void Mark::store(const MarkLinks& value, std::byte* to) {
    to[mark_layout::marked] = std::byte{value.marked};
    std::byte* first_word = to + mark_layout::first_words;
    std::byte* second_word = to + mark_layout::second_words;
    for (const NodeId& id : {value.prev, value.next, value.last}) {
        if (id.first > 0xFF)
            throw error_internal(
                fmt::format("Attempt to store id {}.{} in a mark record", id.first, id.second));
        *first_word++ = static_cast<std::byte>(id.first);
        util::store_be32(second_word, id.second);
        second_word += sizeof(uint32_t);
    }
}

bool Mark::load(std::span<const std::byte> from, MarkLinks& value) {
    if (from.size() < mark_layout::kLength) return false;
    const auto id_at = [&](uint32_t i) {
        return NodeId{std::to_integer<uint32_t>(from[mark_layout::first_words + i]),
                      util::load_be32(&from[mark_layout::second_words + i * sizeof(uint32_t)])};
    };
    value = {id_at(0), id_at(1), id_at(2), from[mark_layout::marked] != std::byte{0}};
    return true;
}

}  // namespace codec

}  // namespace mdb
