#include "dbcache/sibling_index.h"

#include <tuple>

#include "dbcache/detail/metrics.h"
#include "dbcache/object_handler.h"
#include "log/log.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

}  // namespace

SiblingIndex::Entry SiblingIndex::insert(Key key, ObjectHandler& handler) {
    const auto [entry, is_new] = entries_.try_emplace(std::move(key), &handler);
    if (!is_new) {
        logger.warning("Duplicate insertion in sibling index, parent={}, class={}, siblingName={}",
                       entry->first.parent, entry->first.class_number, entry->first.name);
        entry->second->sibling_entry_ = entries_.end();
        entry->second = &handler;
    }
    return entry;
}

ObjectHandler* SiblingIndex::find(const NodeId& parent, uint32_t class_number,
                                  std::string_view name) const {
    detail::metrics::with_sibling.increment();
    const auto entry = entries_.find(Key{parent, class_number, std::string(name)});
    if (entry == entries_.end()) return nullptr;
    detail::metrics::with_sibling_found.increment();
    return entry->second;
}

}  // namespace dbcache
