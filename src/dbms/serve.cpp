#include "dbms/serve.h"

#include <optional>

#include "dbcache/accounting_rebuild.h"
#include "dbcache/bootstrap.h"
#include "dbcache/format_conversion.h"
#include "dbcache/resolver.h"
#include "dbcache/schema/declare_all.h"
#include "dbcache/schema_table.h"
#include "dbcache/store.h"
#include "dbcache/time_series.h"
#include "dbcache/version_source.h"
#include "dbms/event_meters.h"
#include "dbms/main_loop.h"
#include "dbms/netcheck_handlers.h"
#include "dbms/subscribers.h"
#include "dbms/tsdb_callbacks.h"
#include "error/exception.h"
#include "io/exception.h"
#include "io/sibling_messenger.h"
#include "log/channel_mask.h"
#include "log/channels.h"
#include "log/log.h"
#include "log/logger_names.h"
#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "meter/meter.h"
#include "platform/random.h"
#include "queues/dialogs.h"
#include "queues/introspection.h"
#include "queues/log_outlet.h"
#include "tqlengine/meta_tree.h"
#include "util/text.h"

namespace dbms {

namespace {

const logging::Logger logger{"dbms"};

constexpr const char* kMessengerName = "smem";
constexpr uint32_t kOwnId = static_cast<uint32_t>(queues::queue_t::dbms);
constexpr uint32_t kFirstWordOfNewIds = 1;

/// All loggers of the server by name, so that the level of each can be set before it first writes.
void make_loggers() {
    for (const std::string_view name : logging::kServerLoggers)
        static_cast<void>(logging::Logger(name));
}

void set_log_levels(uint64_t log_mask) {
    if ((log_mask & logging::log_dbms_debug) != 0) logging::set_all_levels(logging::level_t::debug);
}

void give_cache_its_sizes(dbcache::ObjectCache& cache,
                          const control::Server_Configuration_Fields& config) {
    if (config.dbms_cache_size < config.dbms_cache_kin)
        throw error::EFatal(fmt::format("dbms_cache_size {} is below dbms_cache_kin {}",
                                        config.dbms_cache_size, config.dbms_cache_kin));
    cache.cache_set_limits(config.dbms_cache_kin, config.dbms_cache_kout,
                           config.dbms_cache_size - config.dbms_cache_kin);
}

void open_cache_trace(dbcache::ObjectCache& cache, const std::string& path) {
    if (path.empty()) return;
    if (const auto failure = cache.cache_open_trace(path))
        logger.error("Object cache tracefile setup error: {}", *failure);
    else
        logger.info("Notice: tracing object access to: '{}'", path);
}

/// The ring sequence that the main process kept, for a database that has lost its own.
std::optional<uint64_t> last_ring_sequence(queues::childqueue& queue) {
    const auto fields = queues::variable_fields(&queue);
    const auto found = fields.vars.find("last_ring_seq");
    if (found == fields.vars.end()) return std::nullopt;
    return util::parse_number<uint64_t>(found->second);
}

/// For an object that had no incidents before. None when the time series store doesn't run.
std::optional<uint32_t> create_incident_series(queues::childqueue& queue) {
    try {
        return queues::create_time_series(&queue, dbcache::small_incident_layout());
    } catch (const error::EFatal& gone) {
        logger.warning("No time series yet, the first incident makes it: {}", gone.text());
    } catch (const io::EEndOfStream& gone) {
        logger.warning("No time series yet, the first incident makes it: {}", gone.text());
    }
    return std::nullopt;
}

/// The classes and the stored objects, below the object layer. Opening replays the journal.
struct Storage {
    Storage(const control::Server_Configuration_Fields& config, queues::childqueue& queue,
            platform::FileSystem& files, const platform::Clock& clock)
        : database({.database_path = config.dbms_odb_file_path,
                    .journal_path = config.dbms_odbj_file_path,
                    .buffer_blocks = config.dbms_buffer_blocks},
                   files, clock),
          indexes(database),
          objects(database, indexes),
          parts{.database = database,
                .objects = objects,
                .indexes = indexes,
                .schemas = schemas,
                .clock = clock,
                .drop_backend_block =
                    [&queue](uint32_t block) { queues::delete_time_series(&queue, block); },
                .create_backend_block =
                    [&queue](const tsdb::time_series_layout_t& layout) {
                        return queues::create_time_series(&queue, layout);
                    }} {
        dbcache::schema::declare_all(schemas);
        indexes.init_required_indexes();
    }
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;

    dbcache::SchemaTable schemas;
    mdb::Database database;
    mdb::IndexTable indexes;
    mdb::ObjectStore objects;
    const dbcache::Store::Parts parts;
};

tqlengine::MetaTree make_meta_tree(const control::Server_Configuration_Fields& config) {
    return {tqlengine::read_layout_file(config.layout_conf_path), config.report_generator};
}

/// What the engine answers from.
void connect(tqlengine::Engine& engine, dbcache::Store& store, const dbcache::SchemaTable& schemas,
             tqlengine::MetaTree& meta_tree) {
    engine.add_resolver(store.resolver());
    meta_tree.register_with(engine);
    engine.set_reparentable_classes(schemas.reparentable_classes());
}

void announce(queues::childqueue& queue) {
    queue.send(queues::devent<queues::REQUEST_SPAWN_PROCESS>(queues::queue_t::main, queue.new_uid(),
                                                             queues::queue_t::keyg));
    queue.send(queues::devent<queues::INIT_OK>(
        queues::queue_t::main, 0, {.depend_on = {queues::queue_t::brdc, queues::queue_t::tsdb}}));
}

/// A server that can't be asked for backups is better than none.
std::unique_ptr<ControlSocket> make_control_socket(mdb::Database& database,
                                                   const platform::Clock& clock) {
    try {
        return std::make_unique<ControlSocket>(database, clock);
    } catch (const error::ESystemError& failure) {
        logger.error("No backups until the next start: {}", failure.text());
        return nullptr;
    }
}

/// The settings objects of the cluster, under a version of their own.
void ensure_cluster_objects(Services& services) {
    tqlengine::RequestContext context{.engine = services.engine,
                                      .clock = services.clock,
                                      .new_version = services.versions.next(),
                                      .user = {}};
    dbcache::ensure_cluster_config(services.store, context);
}

}  // namespace

void serve(const platform::Clock& clock, platform::FileSystem& files) {
    make_loggers();

    // The family: messenger, queue, the road of log lines, the configuration.
    io::ChildMessenger messenger(kOwnId, kMessengerName);
    queues::childqueue queue(messenger, clock);
    queues::log_outlet outlet(queue);
    const logging::OutletScope outlet_scope(
        [&](logging::level_t level, std::string_view line) { outlet.write(level, line); });
    logger.info("DBMS running");
    const control::Server_Configuration_Fields config = queues::server_configuration(&queue);
    set_log_levels(config.log_mask);
    logging::ChannelMask log_mask(config.log_mask, config.system_log_dir_path);
    const meter::Tree metrics("dbms");
    queues::Introspection introspection(queue, metrics, clock);
    EventTrace trace(config.dbms_event_tracefile);
    tqlengine::MetaTree meta_tree = make_meta_tree(config);

    // The database: classes, files, replay, the objects and indexes that must be there.
    Storage storage(config, queue, files, clock);
    dbcache::Sequence sequence =
        dbcache::read_sequence(storage.parts, [&] { return last_ring_sequence(queue); });
    dbcache::ensure_root(storage.parts);
    dbcache::check_indexes(storage.parts, sequence.format);

    // The object layer and the query engine.
    platform::Random random(clock);
    const uint32_t id_start = random.next_u32();
    ++sequence.ring_sequence;
    dbcache::store_sequence(storage.parts, sequence);
    dbcache::VersionSource versions(sequence.ring_sequence);
    dbcache::Store store(storage.parts, kFirstWordOfNewIds, id_start);
    give_cache_its_sizes(store.cache(), config);
    open_cache_trace(store.cache(), config.dbms_cache_tracefile);
    tqlengine::Engine engine;
    connect(engine, store, storage.schemas, meta_tree);
    dbcache::convert_format(storage.parts, sequence, [&] { return create_incident_series(queue); });
    dbcache::prime_mark_lists(storage.parts);
    dbcache::ensure_accounting(storage.parts);
    store.resolver().resume();
    storage.database.journal().journal_checkpoint();
    logger.info("Caches primed");

    // Ready: tell the main process, then serve.
    announce(queue);
    EventMeters meters;
    Subscribers subscribers({clock, queue, engine, meters, trace});
    TsdbCallbacks tsdb_callbacks;
    CustomNetChecks net_checks;
    Services services{clock,    queue,  config,      engine,         store,     versions,
                      log_mask, meters, subscribers, tsdb_callbacks, net_checks};
    Dispatcher dispatcher(services, make_event_table(), trace, [&] {
        return Leftovers{storage.database.journal().transaction_active(),
                         store.referenced_handlers()};
    });
    engine.set_operation_hook([&](auto& object, tqlengine::object_operation_t operation) {
        subscribers.notify(object, operation, dispatcher.last_event_sender());
    });
    ensure_cluster_objects(services);
    const auto control = make_control_socket(storage.database, clock);
    MainLoop loop(
        services,
        {messenger, storage.database.journal(), dispatcher, introspection, log_mask, control.get()},
        {&store.resolver()});
    loop.run();

    storage.database.journal().journal_checkpoint();
    store.resolver().pause();
    if (messenger.shutdownInitiated()) messenger.completeShutdown();
}

}  // namespace dbms
