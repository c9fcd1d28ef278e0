#include "objects/world.h"

#include "dbcache/accounting_rebuild.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/format_conversion.h"
#include "dbcache/object_handler.h"
#include "mdb/format.h"
#include "tql/names.h"
#include "tql/property_kinds.h"
#include "tql/query_text.h"
#include "tqlengine/result_node.h"
#include "tqlengine/select_statistics.h"
#include "tqlengine/update_watcher.h"

namespace bench {

namespace {

constexpr uint64_t kJournalBytes = 64U << 20;
constexpr uint32_t kBufferBlocks = 16'384;
constexpr uint32_t kCacheIn = 25'000, kCacheOut = 125'000, kCacheMain = 125'000;
constexpr uint32_t kFirstWord = 1, kSecondWord = 4'000'000'000;

dbcache::Store::Parts prepare(dbcache::Store::Parts parts, const World::Options& options) {
    parts.create_backend_block = options.create_series;
    parts.indexes.init_required_indexes();
    dbcache::ensure_root(parts);
    dbcache::check_indexes(parts, dbcache::kDatabaseFormat);
    if (options.existing) {
        dbcache::prime_mark_lists(parts);
        dbcache::ensure_accounting(parts);
    }
    return parts;
}

tql::id_t as_id(const NodeId& id) {
    return tql::id_t::from_node_id(id);
}

void collect(const tqlengine::ResultNode& node, std::vector<NodeId>& ids) {
    if (node.visible) ids.push_back(node.id.to_node_id());
    for (const auto& entry : node.children.entries()) collect(*entry.node, ids);
}

}  // namespace

tql::value_t text(uint32_t property, std::string value) {
    return std::make_unique<tql::property_string_t>(property, std::move(value));
}
tql::value_t number(uint32_t property, uint32_t value) {
    return std::make_unique<tql::property_uint_t>(property, value);
}
tql::value_t flag(uint32_t property, bool value) {
    return std::make_unique<tql::property_boolean_t>(property, value);
}
tql::value_t choice(uint32_t property, uint32_t value) {
    const uint32_t id = tql::find_property_row(property)->usual_kind.enumeration;
    return std::make_unique<tql::property_enum_t>(property, id, value, 0U);
}
Values net_check(uint32_t port) {
    constexpr uint32_t kTcp = 6;
    Values values;
    values.push_back(text(prop::remoteName, "web.example"));
    values.push_back(choice(prop::remoteType, kTcp));
    values.push_back(number(prop::port, port));
    return values;
}
tql::value_t reference(uint32_t property, const NodeId& id) {
    return std::make_unique<tql::property_object_t>(property, as_id(id));
}

World::Format::Format(platform::FileSystem& files, const std::string& folder, bool existing) {
    mdb::FormatOptions options;
    options.database_path = folder + "/objects.odb";
    options.journal_path = folder + "/objects.odbj";
    options.journal_size_bytes = kJournalBytes;
    if (!existing) mdb::format_database(files, options);
    settings.database_path = options.database_path;
    settings.buffer_blocks = kBufferBlocks;
}

World::World(const std::string& folder, void (*declare)(dbcache::SchemaTable&),
             const Options& options)
    : format_(files_, folder, options.existing),
      database_(format_.settings, files_, clock_),
      indexes_(database_),
      objects_(database_, indexes_),
      parts_(
          prepare({database_, objects_, indexes_, (declare(schemas_), std::ref(schemas_)), clock_},
                  options)),
      versions_(1),
      store_(parts_, kFirstWord, kSecondWord - (options.existing ? 1'000'000'000 : 0)) {
    store_.cache().cache_set_limits(kCacheIn, kCacheOut, kCacheMain);
    engine_.add_resolver(store_.resolver());
    store_.resolver().resume();
}

void World::set_cache_size(uint32_t objects) {
    store_.cache().cache_set_limits(kCacheIn, kCacheOut, objects);
}

void World::write(const std::function<void(tqlengine::RequestContext&)>& request) {
    tqlengine::RequestContext context{
        .engine = engine_, .clock = clock_, .new_version = versions_.next(), .user = {}};
    if (durable_) return request(context);
    dbcache::StoreTransaction transaction(store_);
    request(context);
    transaction.commit(true);
}

NodeId World::create(const tql::id_t& parent, uint32_t class_number, const Values& values) {
    const NodeId id = store_.resolver().new_node_id();
    write([&](tqlengine::RequestContext& context) {
        engine_.get(parent)->tqlCreate(as_id(id), class_number,
                                       {{}, context.new_version, values, 0, context});
    });
    return id;
}

void World::update(const NodeId& id, const Values& values) {
    write([&](tqlengine::RequestContext& context) {
        const tqlengine::HandlerRef handler = engine_.get(as_id(id));
        tqlengine::TqlUpdateWatcher watcher(engine_, handler, tqlengine::watch_t::existing);
        handler->tqlUpdate({handler->tqlVersion(), context.new_version, values, 0, context});
        watcher.close();
    });
}

void World::remove(const NodeId& id) {
    write([&](tqlengine::RequestContext& context) {
        tqlengine::HandlerRef handler = engine_.get(as_id(id));
        tqlengine::TqlUpdateWatcher watcher(engine_, handler, tqlengine::watch_t::existing);
        handler->tqlDelete({handler->tqlVersion(), context.new_version, false, context});
        handler.reset();
        store_.resolver().erase(watcher.forget());
    });
}

size_t World::read(const NodeId& id) {
    tql::property_map_t values;
    engine_.get(as_id(id))->tqlEncode(tql::pattern_t(cls::Any, tql::kPatternAllProperties), values);
    return values.size();
}

std::vector<NodeId> World::select(const NodeId& root, const std::string& query) {
    tqlengine::Engine::ResultList results;
    tqlengine::SelectStatistics statistics;
    engine_.evaluate(results, {as_id(root)}, tql::parse_pattern(query), statistics);
    std::vector<NodeId> ids;
    for (const tqlengine::ResultNodePtr& node : results) collect(*node, ids);
    return ids;
}

}  // namespace bench
