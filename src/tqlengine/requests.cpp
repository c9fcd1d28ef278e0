#include "tqlengine/requests.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "log/log.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/query_text.h"
#include "tqlengine/update_watcher.h"

namespace tqlengine {

namespace {

const logging::Logger logger{"tqlquery"};

constexpr uint64_t kSlowSelectUs = 10'000;
constexpr uint64_t kVerySlowSelectUs = 3'000'000;

template <class Reply>
void fail(Reply& reply, uint32_t code, const std::string& text) {
    reply.status = code;
    reply.details.push_back({kDetailError, text});
}

template <class Reply>
void fail(Reply& reply, const errors::tql& failure) {
    fail(reply, failure.code(), failure.text());
    for (const auto& detail : failure.details())
        reply.details.push_back({detail.msg_type, detail.msg});
}

// Runs a write on behalf of `user` and puts a failure into the reply. Whatever happens, nobody is
// the current user after it.
template <class Reply, class Write>
void run_write(Reply& reply, RequestContext& context, const tql::id_t& user, Write&& write) {
    struct CurrentUser {
        RequestContext& context;
        ~CurrentUser() { context.user = {}; }
    } const current_user{context};
    try {
        context.user = user.to_node_id();
        write();
    } catch (const errors::tql& failure) {
        fail(reply, failure);
    } catch (const errors::db_anomaly& failure) {
        fail(reply, errors::ERR_BACKEND, failure.text());
    } catch (const errors::remote_error& failure) {
        fail(reply, errors::ERR_BACKEND, failure.text());
    }
}

void check_values(const std::vector<tql::value_t>& properties) {
    for (const tql::value_t& value : properties)
        if (!value) throw errors::tql(errors::ERR_ILLEGAL_TYPE, "Property without a value");
}

void check_new_id(const Engine& engine, const tql::id_t& id) {
    if (id.size() != 2)
        throw errors::tql(errors::ERR_ILLEGAL_VALUE,
                          fmt::format("Illegal id for a new object: \"{}\"", id.to_string()));
    if (engine.find(id)) throw errors::tql_exists(id, id.to_string() + " exists already");
}

std::set<tql::id_t> roots_of(const dbms::Tql_Select_Data& request) {
    return {request.root_ids.begin(), request.root_ids.end()};
}

void select(const dbms::Tql_Select_Data& request, const RequestContext& context,
            uint32_t subscription, SelectReport& report, SelectAnswer& answer) {
    Engine& engine = context.engine;
    const size_t before = engine.live_nodes();
    engine.evaluate(answer.results, roots_of(request), request.pattern, report.statistics,
                    {subscription, (request.flags & kSelectPatchable) != 0});
    report.results = engine.live_nodes() - before;
    report.evaluated_us = context.clock.monotonic_us();
}

void delete_object(const dbms::Tql_Delete_Data& request, RequestContext& context) {
    Engine& engine = context.engine;
    HandlerRef handler = engine.get(request.id);
    TqlIdResolver* resolver = handler->tqlIdResolver();
    TqlUpdateWatcher watcher(engine, handler, watch_t::existing);
    // While the way to the root is still there.
    engine.notify(*handler, object_operation_t::deleted);
    try {
        handler->tqlDelete(
            {request.version, context.new_version, request.clear_master_id, context});
    } catch (const errors::tql_dont_delete&) {
        return;  // the object stays, and the watcher closes as after an update
    }
    handler.reset();
    HandlerRef gone = watcher.forget();
    if (resolver) resolver->erase(std::move(gone));
}

/// The level at which something that took this long is logged; none when it was quick.
std::optional<logging::level_t> level_of(uint64_t elapsed_us) {
    if (elapsed_us <= kSlowSelectUs) return std::nullopt;
    const auto level =
        elapsed_us > kVerySlowSelectUs ? logging::level_t::warning : logging::level_t::debug;
    return logger.enabled(level) ? std::optional(level) : std::nullopt;
}

std::string roots_text(const dbms::Tql_Select_Data& request) {
    std::vector<std::string> roots;
    for (const tql::id_t& root : roots_of(request)) roots.push_back(root.to_string());
    return fmt::format("{}", fmt::join(roots, ", "));
}

double seconds(uint64_t from_us, uint64_t to_us) {
    return to_us > from_us ? static_cast<double>(to_us - from_us) / 1e6 : 0.0;
}

}  // namespace

SelectAnswer process_select(const dbms::Tql_Select_Data& request, RequestContext& context,
                            SelectReport& report, uint32_t subscription) {
    SelectAnswer answer;
    report = {};
    report.start_us = report.evaluated_us = context.clock.monotonic_us();
    try {
        select(request, context, subscription, report, answer);
    } catch (const errors::tql& failure) {
        logger.error("TQL SELECT error ({}): {}", static_cast<uint32_t>(failure.code()),
                     failure.text());
        answer.results.clear();
        fail(answer, failure.code(), failure.text());
    } catch (const errors::db_anomaly& anomaly) {
        logger.error("TQL SELECT anomaly: {}", anomaly.text());
        answer.results.clear();
        fail(answer, errors::ERR_BACKEND, anomaly.text());
    }
    report.prepared_us = context.clock.monotonic_us();
    return answer;
}

void log_select(const dbms::Tql_Select_Data& request, const RequestContext& context,
                const SelectReport& report) {
    const uint64_t sent_us = context.clock.monotonic_us();
    const auto level = level_of(sent_us - report.start_us);
    if (!level) return;
    const SelectStatistics& cost = report.statistics;
    logger.write(*level, "Select for {}: [{}] {}", queues::queue_name(context.sender),
                 roots_text(request), tql::pattern_log_text(request.pattern));
    logger.write(*level, "Obj's considered: {}, included: {}, doublets: {}, results: {}",
                 cost.considered, cost.included, cost.doublets, report.results);
    logger.write(*level, "objectMatches immediate: {}, lengthy: {}",
                 cost.object_matches - cost.lengthy, cost.lengthy);
    logger.write(*level, "Time (sel, prep, send): ({}, {}, {})",
                 seconds(report.start_us, report.evaluated_us),
                 seconds(report.evaluated_us, report.prepared_us),
                 seconds(report.prepared_us, sent_us));
}

ResultNodePtr process_patch(const tql::id_t& id, const dbms::Tql_Select_Data& request,
                            RequestContext& context) {
    SelectStatistics statistics;
    return context.engine.evaluatePatch(id, roots_of(request), request.pattern, statistics);
}

void log_patch(const tql::id_t& id, const dbms::Tql_Select_Data& request,
               const RequestContext& context, uint64_t elapsed_us, std::string_view caused_by) {
    const auto level = level_of(elapsed_us);
    if (!level) return;
    logger.write(*level, "Patch for {}: [{}] {}", queues::queue_name(context.sender),
                 roots_text(request), tql::pattern_log_text(request.pattern));
    logger.write(*level, "Object {} took {}, caused by {}", id.to_string(), seconds(0, elapsed_us),
                 caused_by);
}

dbms::Return_Tql_Create_Data process_create(const dbms::Tql_Create_Data& request,
                                            RequestContext& context) {
    dbms::Return_Tql_Create_Data reply;
    reply.new_id = request.new_id;
    reply.new_version = context.new_version;
    run_write(reply, context, request.user_id, [&] {
        Engine& engine = context.engine;
        check_values(request.properties);
        check_new_id(engine, request.new_id);
        engine.discard_orphans(request.new_id);
        const HandlerRef parent = engine.get(request.parent_id);
        reply.status = parent->tqlCreate(
            request.new_id, request.class_,
            {{}, context.new_version, request.properties, request.flags, context});
    });
    return reply;
}

dbms::Return_Tql_Update_Data process_update(const dbms::Tql_Update_Data& request,
                                            RequestContext& context) {
    dbms::Return_Tql_Update_Data reply;
    reply.new_version = context.new_version;
    run_write(reply, context, request.user_id, [&] {
        check_values(request.properties);
        const HandlerRef handler = context.engine.get(request.id);
        TqlUpdateWatcher watcher(context.engine, handler, watch_t::existing);
        reply.status = handler->tqlUpdate(
            {request.version, context.new_version, request.properties, request.flags, context});
        watcher.close();
    });
    return reply;
}

dbms::Return_Tql_Delete_Data process_delete(const dbms::Tql_Delete_Data& request,
                                            RequestContext& context) {
    dbms::Return_Tql_Delete_Data reply;
    run_write(reply, context, request.user_id, [&] { delete_object(request, context); });
    return reply;
}

dbms::Return_Tql_Class_Names_Data process_class_names() {
    dbms::Return_Tql_Class_Names_Data reply;
    for (const std::string_view name : tql::class_names()) reply.names.emplace_back(name);
    return reply;
}

dbms::Return_Tql_Property_Names_Data process_property_names() {
    dbms::Return_Tql_Property_Names_Data reply;
    for (const auto& row : tql::property_rows())
        reply.names.push_back({row.number, std::string(row.name)});
    return reply;
}

std::set<uint32_t> process_reparentable_classes(const RequestContext& context) {
    return context.engine.reparentable_classes();
}

}  // namespace tqlengine
