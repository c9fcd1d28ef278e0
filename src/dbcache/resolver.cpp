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
    ObjectHandlerRef object = detail::with_faults_as_failures([&] {
        ObjectHandlerRef found = find_stored(id.to_node_id_lenient());
        const bool detached = found && is_detached(*found);
        return detached && deletes_pending_ ? ObjectHandlerRef{} : found;
    });
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
    const Way way = way_to_root(handler);
    if (way.end == way_end_t::ring) tqlengine::fail_own_ancestor(way.last);
    return way.end == way_end_t::nowhere;
}

/// One step for each object that hasn't been seen to hang together with the root in this epoch.
DbcacheIdResolver::Way DbcacheIdResolver::way_to_root(ObjectHandler& handler) {
    const uint64_t epoch = store_.tree_epoch();
    if (handler.attached_epoch_ == epoch || handler.node_id() == kRootId) return {};
    std::vector<ObjectHandlerRef> path;
    tqlengine::WayUp at{ObjectHandlerRef(&handler)};
    while (at->attached_epoch_ != epoch && at->node_id() != kRootId) {
        path.push_back(at.ref());
        if (!at.try_up()) {
            tell_of_ring(at.id());
            return {way_end_t::ring, at.id()};
        }
        if (!at) return {way_end_t::nowhere, {}};
    }
    for (const ObjectHandlerRef& object : path) object->attached_epoch_ = epoch;
    return {};
}

/// Whoever asks is answered each time; the log is told once.
void DbcacheIdResolver::tell_of_ring(const tql::id_t& id) {
    if (told_rings_.insert(id).second)
        logger.error("Object {} is its own ancestor; verify tells all about such damage", id);
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
            if (!object) continue;
            if (deletes_pending_ && way_to_root(*object).end != way_end_t::root) continue;
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
