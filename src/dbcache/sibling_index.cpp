#include "dbcache/sibling_index.h"

#include <tuple>

#include "dbcache/object_handler.h"
#include "log/log.h"
#include "meter/meter.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

meter::Group sibling_group{"siblings"};
meter::IntegerCounter lookup_count{&sibling_group, "lookups", "",
                                   "The number of look-ups of a child by its sibling name"};
meter::IntegerCounter hit_count{&sibling_group, "hits", "",
                                "The number of look-ups that found the child in memory"};

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
    lookup_count.increment();
    const auto entry = entries_.find(Key{parent, class_number, std::string(name)});
    if (entry == entries_.end()) return nullptr;
    hit_count.increment();
    return entry->second;
}

}  // namespace dbcache
