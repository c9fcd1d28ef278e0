#include "dbcache/sibling_index.h"

#include <functional>
#include <utility>

#include "dbcache/detail/metrics.h"
#include "dbcache/object_handler.h"
#include "log/log.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

}  // namespace

/// Siblings have their parent in common, and mostly the first words of all parents are one.
uint64_t SiblingIndex::hash(const Key& key) {
    constexpr uint64_t kSpread = 0x9E3779B97F4A7C15U;
    const uint64_t place = (uint64_t{key.parent.first} << 32 | key.parent.second) * kSpread;
    return std::hash<std::string_view>{}(key.name) ^ (place + key.class_number) * kSpread;
}

void SiblingIndex::insert(Entry& entry, const NodeId& parent, uint32_t class_number,
                          std::string name) {
    entry.parent_ = parent;
    entry.class_number_ = class_number;
    entry.name_ = std::move(name);
    entry.hash_ = hash(entry.key());
    if (Entry* before = find(entry.key(), entry.hash_)) {
        logger.warning("Duplicate insertion in sibling index, parent={}, class={}, siblingName={}",
                       parent, class_number, entry.name_);
        erase(*before);
    }
    if (size_ == slots_.size()) grow();
    entry.next_ = std::exchange(slot(entry.hash_), &entry);
    entry.entered_ = true;
    ++size_;
}

void SiblingIndex::erase(Entry& entry) noexcept {
    if (!entry.entered_) return;
    Entry** at = &slot(entry.hash_);
    while (*at != &entry) at = &(*at)->next_;
    *at = entry.next_;
    entry.entered_ = false;
    --size_;
}

void SiblingIndex::grow() {
    std::vector<Entry*> old(slots_.size() * 2);
    old.swap(slots_);
    for (Entry* at : old)
        while (at != nullptr) {
            Entry& entry = *std::exchange(at, at->next_);
            entry.next_ = std::exchange(slot(entry.hash_), &entry);
        }
}

SiblingIndex::Entry* SiblingIndex::find(const Key& key, uint64_t hash) const {
    Entry* at = slots_[hash & (slots_.size() - 1)];
    while (at != nullptr && (at->hash_ != hash || at->key() != key)) at = at->next_;
    return at;
}

ObjectHandler* SiblingIndex::find(const Key& key) const {
    detail::metrics::with_sibling.increment();
    const Entry* found = find(key, hash(key));
    if (found == nullptr) return nullptr;
    detail::metrics::with_sibling_found.increment();
    return &found->handler();
}

}  // namespace dbcache
