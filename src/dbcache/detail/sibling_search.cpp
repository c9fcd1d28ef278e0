#include "dbcache/detail/sibling_search.h"

#include <algorithm>

#include "dbcache/detail/child_walk.h"
#include "dbcache/inheritance.h"
#include "dbcache/schema_table.h"
#include "mdb/journal.h"
#include "tql/names.h"

namespace dbcache::detail {

const std::set<uint32_t>& sibling_nodetypes(const ObjectHandler& object,
                                            const ObjectHandler& parent) {
    const auto group = parent.schema().group_of_child(object.nodetype());
    return group ? parent.schema().groups().at(*group).children : parent.schema().direct_children();
}

bool SiblingSearch::run() {
    SiblingKeyIndex& index = store_.sibling_keys();
    KeyScope scope{object_.nodetype(), key_.classes(), key_.schemas()};
    ParentKeys* keys = index.find(parent_.node_id(), scope);
    if (keys == nullptr) {
        if (search_directly()) return true;
        if (store_.journal().transaction_active()) return false;
        keys = build(std::move(scope));
        if (keys == nullptr) return false;
    }
    search_in(*keys);
    return true;
}

bool SiblingSearch::search_directly() {
    size_t met = 0;
    walk_children(store_, parent_.node_id(), mdb::parent_id_index,
                  [&](const ObjectHandlerRef& child) {
                      if (++met > kDirectChildren) return false;
                      if (child->node_id() == object_.node_id() ||
                          !key_.classes().contains(child->class_number()) ||
                          !nodetypes_.contains(child->nodetype()))
                          return true;
                      const InheritanceChain chain(store_, child->node_id(), child->location());
                      if (key_.equals(chain)) equal_ = child->node_id();
                      return !equal_;
                  });
    return met <= kDirectChildren;
}

/// The object itself is entered like the others: the next search may be that of a sibling.
ParentKeys* SiblingSearch::build(KeyScope scope) {
    const size_t bound = store_.sibling_keys().max_entries();
    ParentKeys keys(parent_.node_id(), std::move(scope));
    walk_children(store_, parent_.node_id(), mdb::parent_id_index,
                  [&](const ObjectHandlerRef& child) {
                      if (key_.classes().contains(child->class_number()))
                          keys.enter(child->node_id(),
                                     InheritanceChain(store_, child->node_id(), child->location()));
                      return keys.size() <= bound;
                  });
    return store_.sibling_keys().keep(std::move(keys));
}

void SiblingSearch::search_in(ParentKeys& keys) {
    const uint64_t hash = key_.hash();
    std::vector<Match> matches;
    for (const NodeId& id : keys.candidates(hash)) {
        if (id == object_.node_id()) continue;
        if (const auto place = check(keys, hash, id)) matches.push_back({id, *place});
    }
    if (!matches.empty()) equal_ = first_of(matches);
}

std::optional<mdb::block_handle_t> SiblingSearch::check(ParentKeys& keys, uint64_t hash,
                                                        const NodeId& id) {
    const bool committed = !store_.journal().transaction_active();
    const auto place = store_.indexes().unique_find(mdb::node_id_index, id);
    if (!place) {
        if (committed) keys.erase(hash, id);
        return std::nullopt;
    }
    const InheritanceChain record(store_, id, *place);
    const bool sibling = is_sibling(record);
    if (sibling && key_.equals(record)) return place;
    if (committed) {
        keys.erase(hash, id);
        if (sibling) keys.enter(id, record);
    }
    return std::nullopt;
}

/// By the record, not by a handler in memory, which may be in the middle of a move.
bool SiblingSearch::is_sibling(const PropertyChain& record) const {
    mdb::PropertyNodeId parent(prop::parentId);
    PropertyNodeType type(prop::nodeType);
    if (record.read(0, parent) != found_t::value || parent.value != parent_.node_id() ||
        record.read(0, type) != found_t::value)
        return false;
    const auto nodetype = static_cast<uint32_t>(type.value);
    const NodetypeSchema* schema = store_.schemas().find(nodetype);
    return schema != nullptr && key_.classes().contains(schema->tql_class) &&
           nodetypes_.contains(nodetype);
}

/// More than one has to be equal before anyone asks for the order, which keys see to.
const NodeId& SiblingSearch::first_of(const std::vector<Match>& matches) const {
    mdb::IndexTable& indexes = store_.indexes();
    for (auto at = indexes.non_unique_search(mdb::parent_id_index, parent_.node_id());
         matches.size() > 1 && at.at_searched_key(); indexes.iterator_next(at))
        for (const Match& match : matches)
            if (match.place == indexes.iterator_value(at)) return match.id;
    return matches.front().id;
}

}  // namespace dbcache::detail
