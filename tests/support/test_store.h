// A store over a real database in a folder of its own, with the classes of the catalogue or a
// test's own, opened, dropped as by a killed process, and opened again.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dbcache/bootstrap.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/object_handler.h"
#include "dbcache/resolver.h"
#include "dbcache/schema/declare_all.h"
#include "dbcache/schema_table.h"
#include "dbcache/store.h"
#include "dbcache/version_source.h"
#include "io/exception.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/format.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "mdb/verify.h"
#include "support/fake_clock.h"
#include "support/faulty_calls.h"
#include "support/temp_dir.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_kinds.h"
#include "tqlengine/engine.h"
#include "tqlengine/request_context.h"
#include "tqlengine/update_watcher.h"

namespace dbcache_test {

using Values = std::vector<tql::value_t>;

inline tql::value_t text(uint32_t number, std::string value) {
    return std::make_unique<tql::property_string_t>(number, std::move(value));
}
inline tql::value_t object(uint32_t number, const NodeId& id) {
    return std::make_unique<tql::property_object_t>(number, tql::id_t::from_node_id(id));
}
inline tql::value_t null_object(uint32_t number) {
    return std::make_unique<tql::property_object_t>(tql::property_object_t::null(number));
}
inline tql::value_t number(uint32_t property, uint32_t value) {
    return std::make_unique<tql::property_uint_t>(property, value);
}
inline tql::value_t flag(uint32_t property, bool value) {
    return std::make_unique<tql::property_boolean_t>(property, value);
}

class TestStore {
  public:
    struct Sizes {
        uint32_t block = 4096;
        uint64_t journal = 1 << 20;
        uint64_t capacity = 64 << 20;
    };
    using Declare = std::function<void(dbcache::SchemaTable&)>;

    TestStore() : TestStore(Sizes{}) {}
    explicit TestStore(const Sizes& sizes, const Declare& declare = dbcache::schema::declare_all) {
        declare(schemas);
        mdb::FormatOptions options;
        options.database_path = dir.file("db");
        options.journal_path = dir.file("journal");
        options.block_size = sizes.block;
        options.journal_size_bytes = sizes.journal;
        options.capacity_bytes = sizes.capacity;
        mdb::format_database(files, options);
        open();
    }
    ~TestStore() { close(); }

    /// The second words of new ids descend from `first_new_id`.
    void open(uint32_t first_new_id = 4'000'000'000U) {
        close();
        mdb::Settings settings;
        settings.database_path = dir.file("db");
        settings.buffer_blocks = 256;
        database = std::make_unique<mdb::Database>(settings, files, clock);
        indexes = std::make_unique<mdb::IndexTable>(*database);
        indexes->init_required_indexes();
        objects = std::make_unique<mdb::ObjectStore>(*database, *indexes);
        const dbcache::Store::Parts parts{
            .database = *database,
            .objects = *objects,
            .indexes = *indexes,
            .schemas = schemas,
            .clock = clock,
            .drop_backend_block =
                [this](uint32_t block) {
                    if (drop_fails) throw error::EFatal("away");
                    dropped.push_back(block);
                },
            .create_backend_block =
                [this](const tsdb::time_series_layout_t& layout) {
                    if (create_refuses) throw errors::remote_error("disk full");
                    if (store_of_series_is_gone) throw io::EEndOfStream("tsdb", "gone", 20);
                    series_made.push_back(layout);
                    return static_cast<uint32_t>(99 + series_made.size());
                }};
        dbcache::Sequence sequence =
            dbcache::read_sequence(parts, [] { return std::optional<uint64_t>(7); });
        dbcache::ensure_root(parts);
        dbcache::check_indexes(parts, sequence.format);
        ++sequence.ring_sequence;
        dbcache::store_sequence(parts, sequence);
        versions.emplace(sequence.ring_sequence);
        store = std::make_unique<dbcache::Store>(parts, 1, first_new_id);
        engine = std::make_unique<tqlengine::Engine>();
        engine->add_resolver(store->resolver());
    }
    /// Drops all as the death of the process would.
    void close() {
        engine.reset();
        store.reset();
        objects.reset();
        indexes.reset();
        database.reset();
    }

    [[nodiscard]] tqlengine::RequestContext context() {
        return {*engine, clock, queues::queue_t::none, versions->next(), user};
    }

    /// Creates a child of `parent`; the id is new unless one is given.
    NodeId create(const tql::id_t& parent, uint32_t class_number, const Values& values,
                  uint32_t flags = 0, std::optional<NodeId> id = {}) {
        tqlengine::RequestContext request = context();
        const NodeId made = id ? *id : store->resolver().new_node_id();
        const tqlengine::HandlerRef handler = engine->get(parent);
        status = handler->tqlCreate(tql::id_t::from_node_id(made), class_number,
                                    {{}, request.new_version, values, flags, request});
        return made;
    }
    NodeId create(const NodeId& parent, uint32_t class_number, const Values& values,
                  uint32_t flags = 0, std::optional<NodeId> id = {}) {
        return create(tql::id_t::from_node_id(parent), class_number, values, flags, id);
    }
    NodeId domain(const NodeId& parent, const std::string& name) {
        return create(parent, cls::Domain, {text(prop::name, name)});
    }
    NodeId node(const NodeId& parent, const std::string& name) {
        return create(parent, cls::Node, {text(prop::name, name)});
    }

    /// Updates under the present version, or under `version`.
    void update(const NodeId& id, const Values& values, uint32_t flags = 0,
                std::optional<tql::version_t> version = {}) {
        tqlengine::RequestContext request = context();
        const tqlengine::HandlerRef handler = get(id);
        tqlengine::TqlUpdateWatcher watcher(*engine, handler, tqlengine::watch_t::existing);
        status = handler->tqlUpdate({version ? *version : handler->tqlVersion(),
                                     request.new_version, values, flags, request});
    }
    void remove(const NodeId& id, bool clear_master_id = false,
                std::optional<tql::version_t> version = {}) {
        tqlengine::RequestContext request = context();
        tqlengine::HandlerRef handler = get(id);
        tqlengine::TqlUpdateWatcher watcher(*engine, handler, tqlengine::watch_t::existing);
        handler->tqlDelete({version ? *version : handler->tqlVersion(), request.new_version,
                            clear_master_id, request});
        handler.reset();
        store->resolver().erase(watcher.forget());
    }

    [[nodiscard]] tqlengine::HandlerRef find(const NodeId& id) {
        return store->resolver().find(tql::id_t::from_node_id(id));
    }
    [[nodiscard]] tqlengine::HandlerRef get(const NodeId& id) {
        return engine->get(tql::id_t::from_node_id(id));
    }

    /// All values of an object.
    [[nodiscard]] tql::property_map_t values(const NodeId& id) {
        tql::property_map_t out;
        get(id)->tqlEncode(tql::pattern_t(cls::Any, tql::kPatternAllProperties), out);
        return out;
    }
    /// One value in its print form; "null" for a null, "-" when the object has no such property.
    [[nodiscard]] std::string value(const NodeId& id, uint32_t property) {
        tql::pattern_t pattern(cls::Any);
        pattern.wanted_properties = {property};
        tql::property_map_t out;
        get(id)->tqlEncode(pattern, out);
        const auto entry = out.find(property);
        if (entry == out.end()) return "-";
        return entry->second->is_null ? "null" : entry->second->print();
    }
    /// The ids of the children that `pattern` lists, in the order of the listing.
    [[nodiscard]] std::vector<std::string> children(
        const tql::id_t& id, const tql::pattern_t& pattern = tql::pattern_t(cls::Any)) {
        tqlengine::HandlerList list;
        engine->get(id)->tqlChildrenHandlers(list, pattern);
        std::vector<std::string> ids;
        for (const tqlengine::HandlerRef& child : list) ids.push_back(child->tqlId().to_string());
        return ids;
    }
    [[nodiscard]] std::vector<std::string> children(
        const NodeId& id, const tql::pattern_t& pattern = tql::pattern_t(cls::Any)) {
        return children(tql::id_t::from_node_id(id), pattern);
    }

    /// What must hold after each event, and the structures' own invariants. Empty when all is well.
    [[nodiscard]] std::string fault() {
        if (database->journal().transaction_active()) return "a transaction is open";
        if (store->referenced_handlers() != 0)
            return std::to_string(store->referenced_handlers()) + " handlers referenced";
        std::string fault = store->cache().verify();
        if (fault.empty()) fault = mdb::verify(*database).text();
        return fault;
    }

    std::vector<std::string> log;
    logging::OutletScope outlet{
        [this](logging::level_t, std::string_view line) { log.emplace_back(line); }};
    support::TempDir dir;
    /// Nobody cuts the power here, and syncs are what costs most.
    struct Calls final : support::FaultyCalls {
        Calls() { skip_syncs(); }
    };
    platform::SystemFiles files{std::make_shared<Calls>()};
    support::FakeClock clock;
    dbcache::SchemaTable schemas;
    NodeId user;
    uint32_t status = 0;
    /// Blocks that the store has given back.
    std::vector<uint32_t> dropped;
    bool drop_fails = false;
    /// Layouts of the series that the store had made, the first of which is number 100.
    std::vector<tsdb::time_series_layout_t> series_made;
    bool create_refuses = false;
    bool store_of_series_is_gone = false;
    std::unique_ptr<mdb::Database> database;
    std::unique_ptr<mdb::IndexTable> indexes;
    std::unique_ptr<mdb::ObjectStore> objects;
    std::optional<dbcache::VersionSource> versions;
    std::unique_ptr<dbcache::Store> store;
    std::unique_ptr<tqlengine::Engine> engine;
};

/// The failure of `request` as "CODE TEXT"; empty when it worked.
inline std::string failure(const std::function<void()>& request) {
    try {
        request();
    } catch (const errors::tql& failed) {
        return std::to_string(static_cast<uint32_t>(failed.code())) + " " + failed.text();
    }
    return {};
}

}  // namespace dbcache_test
