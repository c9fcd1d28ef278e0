// StoreSnapshot: all that a store holds, on the disk and in memory, as lines of text, so that a
// test can tell whether a write that failed has left anything behind. Within an open transaction it
// shows what that transaction sees.
//
// Not in it: places in the queues of the cache and what is cached of blocks, which decide about
// speed alone, and the entries of the index of sibling keys, which may be too many; of these it
// checks that none is missing.
#pragma once

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <string>

#include "dbcache/inheritance.h"
#include "mdb/object_slots.h"
#include "support/test_store.h"

namespace dbcache_test {

class StoreSnapshot {
  public:
    /// Takes what is in memory as it is; load_all() before makes that all.
    explicit StoreSnapshot(TestStore& world) {
        add_stored(world);
        add_memory(world);
        // An open transaction keeps references to what it has changed.
        if (!world.database->journal().transaction_active()) {
            lines_["referenced"] = std::to_string(world.store->referenced_handlers());
            lines_["fault"] = world.fault();
        }
        check_sibling_keys(world);
    }

    /// What differs, a line for each; empty for equal ones.
    [[nodiscard]] std::string difference(const StoreSnapshot& now) const {
        std::string text;
        for (const auto& [key, value] : lines_) {
            const auto other = now.lines_.find(key);
            if (other == now.lines_.end())
                text += fmt::format("gone: {} {}\n", key, value);
            else if (other->second != value)
                text += fmt::format("changed: {}\n  {}\n  {}\n", key, value, other->second);
        }
        for (const auto& [key, value] : now.lines_)
            if (!lines_.contains(key)) text += fmt::format("new: {} {}\n", key, value);
        return text;
    }

    /// Has a handler in memory for each object that has a class.
    static void load_all(TestStore& world) {
        for (auto it = world.indexes->iterate_first(mdb::node_id_index); it.valid();
             world.indexes->iterator_next(it)) {
            const NodeId id = world.indexes->iterator_key(it);
            if (id != dbcache::kSequenceId)
                static_cast<void>(world.store->resolver().find_stored(id));
        }
    }

  private:
    static std::string place(const mdb::block_handle_t& handle) {
        return fmt::format("{}:{}", handle.block, handle.offset);
    }

    void add_stored(TestStore& world) {
        for (uint32_t n = 0; n < world.indexes->index_count(); ++n)
            for (auto it = world.indexes->iterate_first(n); it.valid();
                 world.indexes->iterator_next(it)) {
                const mdb::block_handle_t handle = world.indexes->iterator_value(it);
                const NodeId key = world.indexes->iterator_key(it);
                lines_[fmt::format("index {} {} {}", n, key, place(handle))];
                if (n == mdb::node_id_index && key != dbcache::kSequenceId)
                    lines_[fmt::format("object {}", key)] = records(world, handle);
            }
    }
    static std::string records(TestStore& world, const mdb::block_handle_t& handle) {
        const mdb::dobj object = world.objects->load_object(handle);
        std::string text = place(handle);
        for (const std::byte byte : mdb::object_slot(object))
            text += fmt::format(" {:02x}", static_cast<unsigned>(byte));
        return text;
    }
    void add_memory(TestStore& world) {
        world.store->cache().for_each([&](const NodeId& id, const mdb::block_handle_t& handle,
                                          dbcache::CachedObject& cached) {
            const auto& handler = static_cast<dbcache::ObjectHandler&>(cached);
            lines_[fmt::format("handler {} at {}", id, place(handle))] = fmt::format(
                "{} at {} parent {} version {} copy {} nodetype {} subtype {} watched {}",
                handler.node_id(), place(handler.location()), handler.parent_id(),
                handler.version().to_string(), handler.tqlVersion().to_string(), handler.nodetype(),
                handler.subtype(), handler.watched());
        });
        world.store->sibling_index().for_each([&](const dbcache::SiblingIndex::Entry& entry) {
            const auto [parent, class_number, name] = entry.key();
            lines_[fmt::format("sibling {} {} {}", parent, class_number, name)] =
                entry.handler().node_id().to_string();
        });
        lines_["live"] = std::to_string(world.store->live_handlers());
    }
    /// K1 of the index of sibling keys, for the objects in memory.
    void check_sibling_keys(TestStore& world) {
        std::map<NodeId, dbcache::ObjectHandlerRef> handlers;
        world.store->cache().for_each([&](const NodeId& id, const mdb::block_handle_t&,
                                          dbcache::CachedObject& cached) {
            handlers[id] = dbcache::ObjectHandlerRef(&static_cast<dbcache::ObjectHandler&>(cached));
        });
        world.store->sibling_keys().for_each([&](const dbcache::ParentKeys& keys) {
            for (const auto& [id, handler] : handlers)
                if (handler->parent_id() == keys.parent() && !is_candidate(keys, *handler))
                    lines_[fmt::format("key of {} under {}", id, keys.parent())] = "missing";
        });
    }
    static bool is_candidate(const dbcache::ParentKeys& keys,
                             const dbcache::ObjectHandler& handler) {
        if (!keys.scope().classes.contains(handler.class_number())) return true;
        const dbcache::InheritanceChain chain(handler.store(), handler.node_id(),
                                              handler.location());
        const auto key = dbcache::hash_stored_key(keys.scope().schemas, chain);
        if (key.state == dbcache::StoredKeyHash::no_key) return true;
        const auto found = keys.candidates(key.hash);
        return std::find(found.begin(), found.end(), handler.node_id()) != found.end();
    }

    std::map<std::string, std::string> lines_;
};

}  // namespace dbcache_test
