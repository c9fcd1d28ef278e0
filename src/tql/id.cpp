#include "tql/id.h"

#include <algorithm>
#include <charconv>

#include "error/exception.h"

namespace tql {

id_t id_t::from_node_id(const NodeId& node_id) {
    return node_id.is_null() ? id_t() : id_t(node_id.first, node_id.second);
}

std::optional<id_t> id_t::parse(std::string_view text) {
    id_t id;
    if (text.empty()) return id;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (id.size() < kCapacity) {
        uint32_t component = 0;
        const auto [stop, failure] = std::from_chars(at, end, component);
        if (failure != std::errc()) return std::nullopt;
        id.push_back(component);
        if (stop == end) return id;
        if (*stop != '.') return std::nullopt;
        at = stop + 1;
    }
    return std::nullopt;
}

uint32_t& id_t::operator[](size_t index) {
    if (index >= length_)
        throw error::ERange(
            fmt::format("small vector reference overflow {} >= {}", index, length_));
    return words_[index];
}

const uint32_t& id_t::operator[](size_t index) const {
    if (index >= length_)
        throw error::ERange(
            fmt::format("small vector const reference overflow {} >= {}", index, length_));
    return words_[index];
}

void id_t::resize(size_t size) {
    if (size > kCapacity)
        throw error::ERange(fmt::format("small vector resize overflow {} > {}", size, kCapacity));
    std::fill(words_.begin() + static_cast<ptrdiff_t>(std::min<size_t>(size, length_)),
              words_.end(), 0U);
    length_ = static_cast<uint32_t>(size);
}

void id_t::push_back(uint32_t component) {
    if (length_ == kCapacity)
        throw error::ERange(fmt::format("small vector push overflow {}", kCapacity));
    words_[length_++] = component;
}

NodeId id_t::to_node_id() const {
    if (length_ != 0 && length_ != 2)
        throw errors::db_anomaly("toNodeId invoked on an id_t of size != 2");
    return to_node_id_lenient();
}

NodeId id_t::to_node_id_lenient() const noexcept {
    return length_ < 2 ? NodeId() : NodeId{words_[0], words_[1]};
}

std::string id_t::to_string() const {
    return fmt::format("{}", fmt::join(*this, "."));
}

std::strong_ordering operator<=>(const id_t& a, const id_t& b) noexcept {
    return std::lexicographical_compare_three_way(a.begin(), a.end(), b.begin(), b.end());
}

}  // namespace tql
