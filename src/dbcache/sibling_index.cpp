#include "dbcache/sibling_index.h"

#include <functional>

#include "dbcache/detail/metrics.h"
#include "dbcache/object_handler.h"
#include "log/log.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

}  // namespace

/// Siblings have their parent in common, and mostly the first words of all parents are one.
size_t SiblingIndex::Hash::operator()(const View& key) const {
    constexpr uint64_t kSpread = 0x9E3779B97F4A7C15U;
    const uint64_t place = (uint64_t{key.parent.first} << 32 | key.parent.second) * kSpread;
    return std::hash<std::string_view>{}(key.name) ^ (place + key.class_number) * kSpread;
}

SiblingIndex::Entry SiblingIndex::insert(Key key, ObjectHandler& handler) {
    const auto [entry, is_new] = entries_.try_emplace(std::move(key), &handler);
    if (!is_new) {
        logger.warning("Duplicate insertion in sibling index, parent={}, class={}, siblingName={}",
                       entry->first.parent, entry->first.class_number, entry->first.name);
        entry->second->sibling_entry_ = end();
        entry->second = &handler;
    }
    return &*entry;
}

ObjectHandler* SiblingIndex::find(const NodeId& parent, uint32_t class_number,
                                  std::string_view name) const {
    detail::metrics::with_sibling.increment();
    const auto entry = entries_.find(View{parent, class_number, name});
    if (entry == entries_.end()) return nullptr;
    detail::metrics::with_sibling_found.increment();
    return entry->second;
}

}  // namespace dbcache
