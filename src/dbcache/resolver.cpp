#include "dbcache/resolver.h"

#include "dbcache/detail/write_faults.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/mark_index.h"
#include "dbcache/object_handler.h"
#include "dbcache/schema_table.h"
#include "log/log.h"
#include "mdb/errors.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "tqlengine/shortcut.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

template <class... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

}  // namespace

DbcacheIdResolver::DbcacheIdResolver(Store& store, uint32_t first_word, uint32_t second_word)
    : store_(store), first_word_(first_word), second_word_(second_word) {
    error::check(store_.resolver_ == nullptr, "Constructing more than one DbcacheIdResolver");
    deletes_pending_ = store_.indexes()
                           .non_unique_search(mdb::parent_id_index, kFreshTombstones)
                           .at_searched_key();
}

// ---- finding by id -----------------------------------------------------------------------------

tqlengine::HandlerRef DbcacheIdResolver::find(const tql::id_t& id) {
    if (id.size() < 2) return {};
    ObjectHandlerRef object =
        detail::with_faults_as_failures([&] { return find_object(id.to_node_id_lenient()); });
    if (object && id.size() == 3) return object->tqlChild(id[2]);
    return object;
}

ObjectHandlerRef DbcacheIdResolver::find_object(const NodeId& id) {
    ObjectHandlerRef handler = find_stored(id);
    if (handler && deletes_pending_ && is_detached(*handler)) return {};
    return handler;
}

ObjectHandlerRef DbcacheIdResolver::find_stored(const NodeId& id) {
    if (CachedObject* cached = store_.cache().cache_find_by_id(id))
        return ObjectHandlerRef(static_cast<ObjectHandler*>(cached));
    const auto handle = store_.indexes().unique_find(mdb::node_id_index, id);
    return handle ? load(id, *handle) : ObjectHandlerRef{};
}

ObjectHandlerRef DbcacheIdResolver::find_at(mdb::block_handle_t handle) {
    if (CachedObject* cached = store_.cache().cache_find_by_handle(handle))
        return ObjectHandlerRef(static_cast<ObjectHandler*>(cached));
    return load({}, handle);
}

/// Builds the handler of the object at `handle` and enters it in the cache. `id`, when not null, is
/// the one under which it was looked for.
ObjectHandlerRef DbcacheIdResolver::load(const NodeId& id, mdb::block_handle_t handle) {
    try {
        auto made = std::make_unique<ObjectHandler>(store_, handle);
        if (!id.is_null() && made->node_id() != id)
            throw mdb::error_need_repair(
                fmt::format("Object {} found under the id {}", made->node_id(), id));
        ObjectHandler* handler = made.release();
        store_.cache().cache_insert(handler->node_id(), handle, *handler);
        return ObjectHandlerRef(handler);
    } catch (const ENoSchema& failure) {
        // What a delete leaves of an object has nodetype 0.
        if (failure.nodetype() != 0) logger.warning("Warning: {}", failure.text());
    } catch (const mdb::error_generic& failure) {
        logger.warning("Warning: {}", failure.text());
    }
    return {};
}

bool DbcacheIdResolver::is_detached(ObjectHandler& handler) {
    const uint64_t epoch = store_.tree_epoch();
    std::vector<ObjectHandlerRef> path;
    ObjectHandlerRef at(&handler);
    while (at->attached_epoch_ != epoch && at->node_id() != kRootId) {
        path.push_back(at);
        at = at->parent_object();
        if (!at) return true;
    }
    for (const ObjectHandlerRef& object : path) object->attached_epoch_ = epoch;
    return false;
}

// ---- finding by index --------------------------------------------------------------------------

bool DbcacheIdResolver::obviousMatches(tqlengine::HandlerList& out, const tql::id_t& origin,
                                       const tql::pattern_t& pattern) {
    const uint32_t indexes = store_.indexes().index_count();
    return std::visit(Overloaded{
                          [](const tqlengine::NoShortcut&) { return false; },
                          [](const tqlengine::MatchesNothing&) { return true; },
                          [&](const tqlengine::ById& by) {
                              push_found(out, by.id);
                              return true;
                          },
                          [&](const tqlengine::ByIds& by) {
                              for (const tql::id_t& id : *by.ids) push_found(out, id);
                              return true;
                          },
                          [&](const tqlengine::ByAlertNotifyObject& by) {
                              if (indexes <= mdb::alert_notify_index) return false;
                              push_indexed(out, mdb::alert_notify_index, by.id);
                              return true;
                          },
                          [&](const tqlengine::ByMark& by) {
                              // Of a group the object that has it: too many, but none missed.
                              const NodeId id = origin.to_node_id_lenient();
                              detail::with_faults_as_failures(
                                  [&] { MarkIndex(store_, by.mark).traverse(out, id); });
                              return true;
                          },
                          [&](const tqlengine::ByMasterId& by) {
                              if (indexes <= mdb::master_id_index || by.id.size() < 2) return false;
                              push_indexed(out, mdb::master_id_index, by.id);
                              return true;
                          },
                      },
                      tqlengine::choose_shortcut(pattern));
}

void DbcacheIdResolver::push_found(tqlengine::HandlerList& out, const tql::id_t& id) {
    if (tqlengine::HandlerRef handler = find(id)) out.push_back(std::move(handler));
}

/// Pushes what index `index` holds under `key`, whose third component, if any, names a child of it.
void DbcacheIdResolver::push_indexed(tqlengine::HandlerList& out, uint32_t index,
                                     const tql::id_t& key) {
    mdb::IndexTable& table = store_.indexes();
    detail::with_faults_as_failures([&] {
        for (auto it = table.non_unique_search(index, key.to_node_id_lenient());
             it.at_searched_key(); table.iterator_next(it)) {
            const ObjectHandlerRef object = find_at(table.iterator_value(it));
            if (!object || (deletes_pending_ && is_detached(*object))) continue;
            tqlengine::HandlerRef found = object;
            if (key.size() == 3) found = object->tqlChild(key[2]);
            if (found) out.push_back(std::move(found));
        }
    });
}

// ---- deletes and new objects -------------------------------------------------------------------

void DbcacheIdResolver::note_tombstone() noexcept {
    deletes_pending_ = true;
    store_.advance_tree_epoch();
}

void DbcacheIdResolver::erase(tqlengine::HandlerRef handler) {
    if (stack_.empty()) {
        logger.debug("Initiating background cascading delete");
        start_walk();
    }
    error::check(dynamic_cast<ObjectHandler*>(handler.get()) != nullptr,
                 "DbcacheIdResolver::erase got something besides ObjectHandler");
    handler.reset();
}

void DbcacheIdResolver::discardOrphans(const tql::id_t& id) {
    const NodeId parent = id.to_node_id_lenient();
    if (is_reserved_id(parent)) return;
    detail::with_faults_as_failures([&] {
        mdb::IndexTable& indexes = store_.indexes();
        if (indexes.unique_find(mdb::node_id_index, parent)) return;
        // Searched anew for each: an iterator doesn't see the deletes.
        for (;;) {
            const auto it = indexes.non_unique_search(mdb::parent_id_index, parent);
            if (!it.at_searched_key()) return;
            const mdb::block_handle_t handle = indexes.iterator_value(it);
            logger.warning("Warning: Deleting orphaned object at {}:{} parent {}", handle.block,
                           handle.offset, parent);
            store_.discard_stored(handle);
        }
    });
}

NodeId DbcacheIdResolver::new_node_id() {
    while (store_.indexes().unique_find(mdb::node_id_index, {first_word_, second_word_}))
        --second_word_;
    return {first_word_, second_word_--};
}

}  // namespace dbcache
