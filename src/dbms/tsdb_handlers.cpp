#include "dbms/tsdb_handlers.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <utility>

#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/object_view.h"
#include "dbcache/resolver.h"
#include "dbcache/store.h"
#include "dbcache/time_series.h"
#include "dbms/tsdb_callbacks.h"
#include "io/exception.h"
#include "log/log.h"
#include "mdb/object_store.h"
#include "queues/dialogs.h"
#include "queues/records/tsdb_requests.h"
#include "queues/series_kinds.h"
#include "tql/errors.h"
#include "tql/names.h"

namespace dbms {

namespace {

using Data = std::vector<tsdb::data_entry_t>;

const logging::Logger logger{"dbms_tsdb"};

constexpr queues::queue_t kTsdb = queues::queue_t::tsdb;
constexpr uint32_t kErrorDetail = 1;

// ---- those who wait ----------------------------------------------------------------------------

template <class Reply>
Reply failed(uint32_t status, const std::string& text) {
    Reply reply;
    reply.status = status;
    reply.details.push_back({kErrorDetail, text});
    return reply;
}

/// Passes the one reply on to the asker.
class AnsweringCallback : public AsyncTsdbCallback {
  public:
    AnsweringCallback(queues::childqueue& queue, const queues::event& asked)
        : AsyncTsdbCallback(asked.peer, asked.uid), queue_(queue) {}

  protected:
    [[nodiscard]] queues::childqueue& queue() const noexcept { return queue_; }
    template <queues::event_t N>
    void fail(const queues::exevent& failure) const {
        if (!is_awaited()) return logger.warning("{}", failure.text);
        answer<N>(queue_, failed<queues::record_t<N>>(errors::ERR_BACKEND, failure.text));
    }

  private:
    queues::childqueue& queue_;
};

class GetDataCallback final : public AnsweringCallback {
  public:
    using AnsweringCallback::AnsweringCallback;
    void on_reply(const queues::event& reply) override {
        const auto& got = queues::data<queues::RETURN_GET_DATA>(reply);
        Return_TSDB_Get_Data_Data out;
        out.data_type = got.data_type;
        out.data = got.data;
        answer<queues::RETURN_TSDB_GET_DATA>(queue(), std::move(out));
    }
    void on_error(const queues::exevent& failure) override {
        fail<queues::RETURN_TSDB_GET_DATA>(failure);
    }
    [[nodiscard]] const char* name() const override { return "GetDataCallback"; }
};

class GetLatestDataCallback final : public AnsweringCallback {
  public:
    using AnsweringCallback::AnsweringCallback;
    void on_reply(const queues::event& reply) override {
        const auto& got = queues::data<queues::RETURN_GET_DATA>(reply);
        error::check(got.data.size() <= 1, "Got more than one record");
        Return_TSDB_Get_Latest_Data_Record_Data out;
        out.data_type = got.data_type;
        if (!got.data.empty()) out.data = got.data.front();
        answer<queues::RETURN_TSDB_GET_LATEST_DATA_RECORD>(queue(), std::move(out));
    }
    void on_error(const queues::exevent& failure) override {
        fail<queues::RETURN_TSDB_GET_LATEST_DATA_RECORD>(failure);
    }
    [[nodiscard]] const char* name() const override { return "GetLatestDataCallback"; }
};

class TruncateOldDataCallback final : public AnsweringCallback {
  public:
    using AnsweringCallback::AnsweringCallback;
    void on_reply(const queues::event& /*reply*/) override {
        answer<queues::RETURN_TSDB_TRUNCATE_OLD_DATA>(queue(), {});
    }
    void on_error(const queues::exevent& failure) override {
        fail<queues::RETURN_TSDB_TRUNCATE_OLD_DATA>(failure);
    }
    [[nodiscard]] const char* name() const override { return "TruncateOldDataCallback"; }
};

/// What a write was about, in words for the log. Where the object lies is looked up when it is
/// asked for: hardly ever.
struct Write {
    dbcache::Store& store;
    NodeId id;
    uint32_t property;
    uint32_t data_type;

    [[nodiscard]] std::string description() const {
        return fmt::format("Error putting datatype {} into {} of {} by {}", data_type,
                           tql::property_name(property), dbcache::object_path(store, id),
                           queues::queue_name(queues::queue_t::dbms));
    }
};

/// Answers when all records are stored, with all that went wrong.
class AppendDataCallback final : public AsyncTsdbCallback {
  public:
    AppendDataCallback(queues::childqueue& queue, const queues::event& asked, const Write& write)
        : AsyncTsdbCallback(asked.peer, asked.uid), queue_(queue), write_(write) {}
    void on_reply(const queues::event& /*reply*/) override {}
    void on_error(const queues::exevent& failure) override { errors_.push_back(failure.text); }
    void on_done() override {
        if (errors_.empty()) return answer<queues::RETURN_TSDB_APPEND_DATA>(queue_, {});
        const std::string all = fmt::format("{}", fmt::join(errors_, ", "));
        logger.error("{}: {}", write_.description(), all);
        answer<queues::RETURN_TSDB_APPEND_DATA>(
            queue_, failed<Return_TSDB_Append_Data_Data>(errors::ERR_BACKEND, all));
    }
    [[nodiscard]] const char* name() const override { return "AppendDataCallback"; }

  private:
    queues::childqueue& queue_;
    const Write write_;
    std::vector<std::string> errors_;
};

/// Nobody waits any more; what goes wrong is logged.
class PutDataRecord final : public AsyncTsdbCallback {
  public:
    explicit PutDataRecord(const Write& write)
        : AsyncTsdbCallback(queues::queue_t::none, queues::kNoReply), write_(write) {}
    void on_reply(const queues::event& /*reply*/) override {}
    void on_error(const queues::exevent& failure) override {
        logger.error("{}: {}", write_.description(), failure.text);
    }
    [[nodiscard]] const char* name() const override { return "PutDataRecord"; }

  private:
    const Write write_;
};

// ---- objects and their series ------------------------------------------------------------------

dbcache::ObjectHandlerRef get_object(EventContext& context, const tql::id_t& id, const char* what) {
    // As the engine finds it: damage in the store fails the request.
    const tqlengine::HandlerRef found =
        context.services.store.resolver().find(tql::id_t::from_node_id(id.to_node_id_lenient()));
    dbcache::ObjectHandlerRef object(dynamic_cast<dbcache::ObjectHandler*>(found.get()));
    if (!object)
        throw errors::tql(
            errors::ERR_NO_SUCH_ID,
            fmt::format("{} got request for unknown object {}", what, id.to_string()));
    return object;
}

/// For writes.
dbcache::ObjectHandlerRef get_holder(EventContext& context, const tql::id_t& id,
                                     const char* handler) {
    dbcache::ObjectHandlerRef object = get_object(context, id, "TSDB Put Data");
    const auto entries = object->schema().properties();
    if (std::none_of(entries.begin(), entries.end(),
                     [](const auto& entry) { return entry.schema->has_backend(); }))
        throw errors::db_anomaly(fmt::format("{} handler found neither host nor check as id {}",
                                             handler, id.to_string()));
    return object;
}

void check_series_property(const dbcache::ObjectHandler& object, uint32_t property) {
    const auto slot = object.schema().lookupProperty(property, object.subtype());
    if (!slot) throw mdb::error_implicit_nullprop("No such property", property);
    if (!object.schema().properties()[*slot].schema->has_backend())
        throw errors::db_anomaly("Put_Data called with property of wrong type");
}

Write write_of(const dbcache::ObjectHandler& object, uint32_t property, uint32_t data_type) {
    return {object.store(), object.node_id(), property, data_type};
}

/// Sends `request` under a new dialog id, to whose reply `callback` listens.
template <queues::event_t N>
void send_for(Services& services, queues::record_t<N> request, TsdbCallbacks::Callback callback) {
    const uint32_t uid = services.queue.new_uid();
    services.queue.send(queues::devent<N>(kTsdb, uid, std::move(request)));
    services.tsdb_callbacks.enter(uid, std::move(callback));
}

tsdb::Put_Data_Data put_request(EventContext& context, uint32_t index, uint32_t operation,
                                uint32_t data_type, Data data) {
    return {context.request.sender, index, operation, data_type, std::move(data)};
}

void put_data(EventContext& context, uint32_t index, const tsdb::data_entry_t& entry,
              uint32_t data_type, const TsdbCallbacks::Callback& callback) {
    send_for<queues::PUT_DATA>(
        context.services, put_request(context, index, tsdb::kStore, data_type, {entry}), callback);
}

void store_index(dbcache::ObjectHandler& object, uint32_t property, uint32_t index) {
    dbcache::StoreTransaction transaction(object.store());
    object.rewrite_records([&](mdb::ObjectStore& objects, mdb::dobj& image) {
        objects.update_property(image, mdb::PropertySeries(property, index), true, false);
    });
    transaction.commit();
}

/// Runs `work` and answers with what came of it.
template <queues::event_t N, class Work>
void answer_outcome(EventContext& context, const queues::event& asked, const char* handler,
                    uint32_t property, bool answers_success, Work&& work) {
    using Reply = queues::record_t<N>;
    std::optional<Reply> reply_record;
    try {
        work();
        if (answers_success) reply_record.emplace();
    } catch (const errors::tql& failure) {
        reply_record = failed<Reply>(failure.code(), failure.text());
    } catch (const errors::db_anomaly& failure) {
        reply_record = failed<Reply>(errors::ERR_BACKEND, failure.text());
    } catch (const errors::remote_error& failure) {
        reply_record = failed<Reply>(errors::ERR_BACKEND, failure.text());
    } catch (const mdb::error_nullprop&) {
        reply_record =
            failed<Reply>(errors::ERR_BACKEND,
                          fmt::format("{} was requested to put in property {}", handler, property));
    } catch (const io::EEndOfStream& gone) {
        reply_record = failed<Reply>(errors::ERR_BACKEND, gone.text());
    }
    if (!reply_record) return;
    if (reply_record->status != 0) logger.warning("{}", reply_record->details.front().msg);
    reply<N>(context, asked, std::move(*reply_record));
}

}  // namespace

void putDataSeries(Services& services, dbcache::ObjectHandler& object, uint32_t property, Data data,
                   uint32_t data_type) {
    logger.debug("Entering putDataSeries index_prop is {} id is {} data_type is {}", property,
                 object.node_id().to_string(), data_type);
    error::check(object.is_stored(), "Attempted putDataSeries on object only for recovery");
    check_series_property(object, property);
    const uint32_t before = dbcache::stored_series(object, property);
    queues::devent<queues::PUT_DATA> request(
        kTsdb, queues::kNoReply,
        {queues::queue_t::dbms, before, tsdb::kAllocateAndStore, data_type, std::move(data)});
    uint32_t index = before;
    try {
        const auto reply = queues::ask(&services.queue, request, queues::RETURN_PUT_DATA_ALLOC,
                                       "TSDB", "tsdb::Return_Put_Data_Alloc");
        index = queues::data<queues::RETURN_PUT_DATA_ALLOC>(*reply);
    } catch (const errors::remote_error& refusal) {
        throw errors::db_anomaly(fmt::format("Error allocating time series: {}", refusal.text()));
    }
    // The second answer comes when the data is stored.
    services.tsdb_callbacks.enter(
        request.uid, std::make_shared<PutDataRecord>(write_of(object, property, data_type)));
    if (index == before) return;
    try {
        store_index(object, property, index);
    } catch (const errors::stdanomaly&) {
        services.store.drop_backend_block(index);  // nobody knows of it
        throw;
    }
    if (before != tsdb::kNoSeries) services.store.drop_backend_block(before);
}

void ev_tsdb_get_data(EventContext& context, queues::event& received) {
    const TSDB_Get_Data_Data& asked = queues::data<queues::TSDB_GET_DATA>(received);
    answer_outcome<queues::RETURN_TSDB_GET_DATA>(
        context, received, "Get_Data", asked.index_property, false, [&] {
            const auto object = get_object(context, asked.id, "TSDB Get Data");
            tsdb::Get_Data_Data wanted;
            wanted.handle = dbcache::tsdb_index(*object, asked.index_property);
            wanted.data_type = dbcache::tsdb_data_type(*object, asked.index_property);
            wanted.flags = asked.flags;
            wanted.raw = asked.raw;
            wanted.start = asked.start;
            wanted.end = asked.end;
            wanted.count = asked.count;
            wanted.offset = asked.offset;
            send_for<queues::GET_DATA>(
                context.services, wanted,
                std::make_shared<GetDataCallback>(context.services.queue, received));
        });
}

void ev_tsdb_get_latest_data_record(EventContext& context, queues::event& received) {
    const auto& asked = queues::data<queues::TSDB_GET_LATEST_DATA_RECORD>(received);
    answer_outcome<queues::RETURN_TSDB_GET_LATEST_DATA_RECORD>(
        context, received, "Get_Latest_Data", asked.index_property, false, [&] {
            const auto object = get_object(context, asked.id, "TSDB Get Latest Data");
            tsdb::Get_Data_Data wanted;
            wanted.handle = dbcache::tsdb_index(*object, asked.index_property);
            wanted.data_type = dbcache::tsdb_data_type(*object, asked.index_property);
            wanted.flags = asked.flags | tsdb::kFromNewest;
            wanted.count = 1;
            send_for<queues::GET_DATA>(
                context.services, wanted,
                std::make_shared<GetLatestDataCallback>(context.services.queue, received));
        });
}

void ev_tsdb_truncate_old_data(EventContext& context, queues::event& received) {
    const auto& asked = queues::data<queues::TSDB_TRUNCATE_OLD_DATA>(received);
    answer_outcome<queues::RETURN_TSDB_TRUNCATE_OLD_DATA>(
        context, received, "Truncate_Old_Data", asked.index_property, false, [&] {
            const auto object = get_holder(context, asked.id, "Truncate_Old_Data");
            check_series_property(*object, asked.index_property);
            send_for<queues::TRUNCATE_OLD_DATA>(
                context.services, {dbcache::tsdb_index(*object, asked.index_property), asked.time},
                std::make_shared<TruncateOldDataCallback>(context.services.queue, received));
        });
}

void ev_tsdb_put_data(EventContext& context, queues::event& received) {
    TSDB_Put_Data_Data& asked = queues::data<queues::TSDB_PUT_DATA>(received);
    answer_outcome<queues::RETURN_TSDB_PUT_DATA>(
        context, received, "Put_Data", asked.index_property, true, [&] {
            const auto object = get_holder(context, asked.id, "Put_Data");
            putDataSeries(context.services, *object, asked.index_property, std::move(asked.data),
                          asked.data_type);
        });
}

void ev_tsdb_append_data_record(EventContext& context, queues::event& received) {
    TSDB_Append_Data_Record_Data& asked = queues::data<queues::TSDB_APPEND_DATA_RECORD>(received);
    answer_outcome<queues::RETURN_TSDB_APPEND_DATA_RECORD>(
        context, received, "Append_Data_Record", asked.index_property, true, [&] {
            const auto object = get_holder(context, asked.id, "Append_Data_Record");
            check_series_property(*object, asked.index_property);
            if (dbcache::stored_series(*object, asked.index_property) == tsdb::kNoSeries)
                return putDataSeries(context.services, *object, asked.index_property, {asked.data},
                                     asked.data_type);
            put_data(context, dbcache::tsdb_index(*object, asked.index_property), asked.data,
                     asked.data_type,
                     std::make_shared<PutDataRecord>(
                         write_of(*object, asked.index_property, asked.data_type)));
        });
}

void ev_tsdb_append_data(EventContext& context, queues::event& received) {
    TSDB_Append_Data_Data& asked = queues::data<queues::TSDB_APPEND_DATA>(received);
    answer_outcome<queues::RETURN_TSDB_APPEND_DATA>(
        context, received, "Append_Data", asked.index_property, false, [&] {
            const auto object = get_holder(context, asked.id, "Append_Data");
            check_series_property(*object, asked.index_property);
            const auto callback = std::make_shared<AppendDataCallback>(
                context.services.queue, received,
                write_of(*object, asked.index_property, asked.data_type));
            const bool has_series =
                dbcache::stored_series(*object, asked.index_property) != tsdb::kNoSeries;
            if (!has_series && !asked.data.empty())
                putDataSeries(context.services, *object, asked.index_property,
                              std::move(asked.data), asked.data_type);
            if (!has_series || asked.data.empty()) return callback->on_done();
            const uint32_t index = dbcache::tsdb_index(*object, asked.index_property);
            for (const tsdb::data_entry_t& entry : asked.data)
                put_data(context, index, entry, asked.data_type, callback);
        });
}

void ev_tsdb_merge_data(EventContext& context, queues::event& received) {
    TSDB_Merge_Data_Data& asked = queues::data<queues::TSDB_MERGE_DATA>(received);
    logger.info("type of merging is {}", asked.data_type);
    logger.info("size of merging is {}", asked.data.size());
    logger.info("tsdb index is {}", asked.tsdb_index);
    answer_outcome<queues::RETURN_TSDB_MERGE_DATA>(
        context, received, "Merge_Data", asked.tsdb_index, true, [&] {
            queues::devent<queues::PUT_DATA> request(
                kTsdb, queues::kNoReply,
                put_request(context, asked.tsdb_index, tsdb::kMerge, asked.data_type,
                            std::move(asked.data)));
            static_cast<void>(queues::ask(&context.services.queue, request,
                                          queues::RETURN_PUT_DATA_ALLOC, "TSDB",
                                          "tsdb::Return_Put_Data_Alloc"));
        });
}

}  // namespace dbms
