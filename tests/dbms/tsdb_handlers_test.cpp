// Requests for the series of an object, with a time series store whose answers the test gives.
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "dbcache/time_series.h"
#include "dbms/dispatcher.h"
#include "dbms/tsdb_callbacks.h"
#include "queues/records/tsdb_requests.h"
#include "queues/series_kinds.h"
#include "test_family.h"

namespace dbms {
namespace {

using namespace queues;

constexpr uint32_t kSeries = 100;  // what the store of the test gives first
const tql::id_t kUnknown{9, 9};

tsdb::data_entry_t point() {
    auto made = std::make_unique<tsdb::data_interval_incident_t>();
    made->message = "m";
    return tsdb::data_entry_t(std::move(made));
}

/// "STATUS" or "STATUS text", and how many records there are where there may be any.
template <class Record>
std::string outcome(const Record& record) {
    std::string out = std::to_string(record.status);
    if (!record.details.empty()) out += " " + record.details.front().msg;
    if constexpr (requires { record.data.size(); })
        out += fmt::format(" x{}", record.data.size());
    else if constexpr (requires { record.data; })
        out += record.data ? " one" : " none";
    return out;
}

template <event_t... Numbers>
std::string outcome_of(const event& received) {
    std::string out = event_name(&received);
    ((received.number() == Numbers ? void(out += " " + outcome(data<Numbers>(received))) : void()),
     ...);
    return out;
}

class TsdbHandlersTest : public testing::Test, protected dbms_test::TestFamily {
  public:
    TsdbHandlersTest() {
        settle_all();
        node = store.node(dbcache::kRootId, "n");
        store.store_of_series_is_gone = true;
        bare = store.node(dbcache::kRootId, "bare");
        store.store_of_series_is_gone = false;
    }
    void settle_all() {
        for (int round = 0; round < 4; ++round) {
            settle();
            serve(tsdb_messenger);
        }
    }
    /// The next dialog id that the server will use.
    uint32_t next_uid() { return queue.new_uid() + 1; }

    template <event_t N>
    void ask(record_t<N> record, uint32_t uid = 7) {
        devent<N> received(queue_t::main, uid, std::move(record));
        dispatcher.dispatch(received);
    }
    void get(const tql::id_t& id, uint32_t property, uint32_t uid) {
        ask<TSDB_GET_DATA>({id, property, 0x300, true, 10, 20, 5, 6}, uid);
    }
    void latest(const tql::id_t& id, uint32_t property, uint32_t uid) {
        ask<TSDB_GET_LATEST_DATA_RECORD>({id, property, 0x300}, uid);
    }
    void put(const tql::id_t& id, uint32_t property, uint32_t uid) {
        ask<TSDB_PUT_DATA>({id, property, tsdb::kIncidentData, {point(), point()}}, uid);
    }
    void append(const tql::id_t& id, uint32_t property, uint32_t uid) {
        ask<TSDB_APPEND_DATA>({id, property, tsdb::kIncidentData, {point()}, 0, ""}, uid);
    }
    void append_record(const tql::id_t& id, uint32_t property, uint32_t uid) {
        ask<TSDB_APPEND_DATA_RECORD>({id, property, tsdb::kIncidentData, point(), 0}, uid);
    }
    void truncate(const tql::id_t& id, uint32_t property, uint32_t uid) {
        ask<TSDB_TRUNCATE_OLD_DATA>({id, property, 50}, uid);
    }
    void merge(uint32_t uid) {
        ask<TSDB_MERGE_DATA>({kSeries, tsdb::kIncidentData, {point()}}, uid);
    }
    using Ask = void (TsdbHandlersTest::*)(const tql::id_t&, uint32_t, uint32_t);

    /// What the store of series is asked next.
    std::unique_ptr<event> store_reads() {
        settle_all();
        return tsdb_queue.front().isReady() ? tsdb_queue.read() : nullptr;
    }
    static std::string shown(const event* asked) {
        if (asked == nullptr) return "-";
        if (asked->number() == PUT_DATA) {
            const auto& put = data<PUT_DATA>(*asked);
            return fmt::format("put {:x} operation {} type {} x{} for {}", put.handle,
                               put.operation, put.data_type, put.data.size(),
                               queue_name(put.orig_requester));
        }
        if (asked->number() == GET_DATA) {
            const auto& get = data<GET_DATA>(*asked);
            return fmt::format("get {:x} type {} flags {:x} {} {}-{} {}+{}", get.handle,
                               get.data_type, get.flags, get.raw, get.start, get.end, get.offset,
                               get.count);
        }
        if (asked->number() == TRUNCATE_OLD_DATA) {
            const auto& truncate = data<TRUNCATE_OLD_DATA>(*asked);
            return fmt::format("truncate {:x} {}", truncate.handle, truncate.time);
        }
        return event_name(asked);
    }
    void store_answers(const event& answer) {
        tsdb_queue.send(answer);
        settle_all();
    }
    /// The server takes what its store answered.
    void take() {
        settle_all();
        const auto received = queue.read();
        ASSERT_NE(received, nullptr);
        ASSERT_TRUE(dispatcher.finish_callback(*received));
        ASSERT_FALSE(dispatcher.finish_callback(*received)) << "an ordinary event now";
    }
    /// What the asker hears; "-" for nothing.
    std::string answer() {
        settle_all();
        if (!main.front().isReady()) return "-";
        const auto received = main.read();
        if (received == nullptr) return "end";
        EXPECT_EQ(received->uid, 7U);
        return outcome_of<RETURN_TSDB_GET_DATA, RETURN_TSDB_PUT_DATA, RETURN_TSDB_MERGE_DATA,
                          RETURN_TSDB_GET_LATEST_DATA_RECORD, RETURN_TSDB_APPEND_DATA_RECORD,
                          RETURN_TSDB_APPEND_DATA, RETURN_TSDB_TRUNCATE_OLD_DATA>(*received);
    }
    struct StoreCase {
        std::function<void(uint32_t uid)> ask;
        bool server_waits;
        std::string request;
        std::function<std::unique_ptr<event>(uint32_t uid)> reply;
        std::string good, bad;
    };
    void try_request(const StoreCase& one, uint32_t uid, bool refuses) {
        const auto send = [&](uint32_t to) {
            if (refuses)
                store_answers(exevent(queue_t::dbms, to, "full"));
            else
                store_answers(*one.reply(to));
        };
        if (one.server_waits) send(next_uid());
        one.ask(uid);
        const auto asked = store_reads();
        EXPECT_EQ(shown(asked.get()), one.request);
        if (!one.server_waits && asked != nullptr) {
            EXPECT_EQ(answer(), "-");
            send(asked->uid);
            take();
        }
        EXPECT_EQ(answer(), uid == 7U ? (refuses ? one.bad : one.good) : "-");
        // A put is answered a second time.
        while (services.tsdb_callbacks.pending() > 0) {
            ASSERT_TRUE(one.server_waits);
            services.tsdb_callbacks.fail_all("later");
        }
    }
    std::string index_of(const NodeId& id) {
        try {
            return std::to_string(
                dbcache::tsdb_index(*store.store->resolver().find_object(id), prop::tsdbIncident));
        } catch (const errors::db_anomaly& failure) {
            return failure.text();
        }
    }
    std::string trace_text() {
        std::ostringstream out;
        out << std::ifstream(dir.file("trace")).rdbuf();
        return out.str();
    }

    io::ChildMessenger tsdb_messenger{static_cast<uint32_t>(queue_t::tsdb), parent.access()};
    childqueue tsdb_queue{tsdb_messenger, store.clock};
    Dispatcher dispatcher{services, make_event_table(), trace, [this] {
                              return Leftovers{store.database->journal().transaction_active(),
                                               store.store->referenced_handlers()};
                          }};
    NodeId node;
    NodeId bare;  ///< without a series yet
    std::string log;
    logging::OutletScope outlet{
        [this](logging::level_t, std::string_view line) { log += fmt::format("{}\n", line); }};
};

// Each with its request to the store, and its answer when that goes well, fails, and isn't wanted.
TEST_F(TsdbHandlersTest, WhatTheStoreIsAskedAndTheAskerHears) {
    const auto id = tql::id_t::from_node_id(node);
    const auto stored = [](uint32_t uid) {
        return std::make_unique<devent<RETURN_PUT_DATA_ALLOC>>(queue_t::dbms, uid, kSeries);
    };
    const auto got = [](uint32_t uid) {
        tsdb::Return_Get_Data_Data data{tsdb::kIncidentData, {point()}};
        return std::make_unique<devent<RETURN_GET_DATA>>(queue_t::dbms, uid, data);
    };
    const auto truncated = [](uint32_t uid) {
        return std::make_unique<devent<RETURN_TRUNCATE_OLD_DATA>>(queue_t::dbms, uid);
    };
    const StoreCase cases[] = {
        {[&](uint32_t uid) { get(id, prop::tsdbIncident, uid); }, false,
         "get 64 type 4 flags 300 true 10-20 6+5", got, "RETURN_TSDB_GET_DATA 0 x1",
         "RETURN_TSDB_GET_DATA 14 full x0"},
        {[&](uint32_t uid) { latest(id, prop::tsdbIncident, uid); }, false,
         "get 64 type 4 flags 301 false 0-0 0+1", got, "RETURN_TSDB_GET_LATEST_DATA_RECORD 0 one",
         "RETURN_TSDB_GET_LATEST_DATA_RECORD 14 full none"},
        {[&](uint32_t uid) { truncate(id, prop::tsdbIncident, uid); }, false, "truncate 64 50",
         truncated, "RETURN_TSDB_TRUNCATE_OLD_DATA 0", "RETURN_TSDB_TRUNCATE_OLD_DATA 14 full"},
        {[&](uint32_t uid) { append(id, prop::tsdbIncident, uid); }, false,
         "put 64 operation 2 type 4 x1 for main", stored, "RETURN_TSDB_APPEND_DATA 0",
         "RETURN_TSDB_APPEND_DATA 14 full"},
        {[&](uint32_t uid) { merge(uid); }, true, "put 64 operation 3 type 4 x1 for main", stored,
         "RETURN_TSDB_MERGE_DATA 0", "RETURN_TSDB_MERGE_DATA 14 full"},
        {[&](uint32_t uid) { put(id, prop::tsdbIncident, uid); }, true,
         "put 64 operation 4 type 4 x2 for dbms", stored, "RETURN_TSDB_PUT_DATA 0",
         "RETURN_TSDB_PUT_DATA 14 Error allocating time series: full"},
    };
    for (const StoreCase& one : cases) {
        SCOPED_TRACE(one.request);
        for (const uint32_t uid : {7U, kNoReplyAllOnes})
            for (const bool refuses : {false, true}) try_request(one, uid, refuses);
    }
    EXPECT_NE(log.find("Error putting datatype 4 into tsdbIncident of /n by dbms: later"),
              std::string::npos)
        << log;
    EXPECT_NE(trace_text().find("Callback: GetLatestDataCallback"), std::string::npos);
    EXPECT_EQ(store.fault(), "");
}

TEST_F(TsdbHandlersTest, WhatCantBeAskedIsAnsweredWithTheReason) {
    const tql::id_t here = tql::id_t::from_node_id(node);
    const tql::id_t root = tql::id_t::from_node_id(dbcache::kRootId);
    const struct {
        Ask ask;
        const char *reply, *subject, *handler;
    } writers[] = {
        {&TsdbHandlersTest::put, "RETURN_TSDB_PUT_DATA", "TSDB Put Data", "Put_Data"},
        {&TsdbHandlersTest::append, "RETURN_TSDB_APPEND_DATA", "TSDB Put Data", "Append_Data"},
        {&TsdbHandlersTest::append_record, "RETURN_TSDB_APPEND_DATA_RECORD", "TSDB Put Data",
         "Append_Data_Record"},
        {&TsdbHandlersTest::truncate, "RETURN_TSDB_TRUNCATE_OLD_DATA", "TSDB Put Data",
         "Truncate_Old_Data"},
    };
    const auto expect = [&](Ask what, const tql::id_t& id, uint32_t property,
                            const std::string& expected) {
        SCOPED_TRACE(expected);
        (this->*what)(id, property, 7);
        EXPECT_EQ(answer(), expected);
        (this->*what)(id, property, kNoReplyAllOnes);
        EXPECT_EQ(answer(), "-");
        EXPECT_EQ(shown(store_reads().get()), "-");
    };
    for (const auto& one : writers) {
        expect(one.ask, kUnknown, prop::tsdbIncident,
               fmt::format("{} 1 {} got request for unknown object 9.9", one.reply, one.subject));
        expect(one.ask, root, prop::tsdbIncident,
               fmt::format("{} 14 {} handler found neither host nor check as id 0.1", one.reply,
                           one.handler));
        expect(
            one.ask, here, prop::tsdbForecast,
            fmt::format("{} 14 {} was requested to put in property 2602", one.reply, one.handler));
        expect(one.ask, here, prop::label,
               fmt::format("{} 14 Put_Data called with property of wrong type", one.reply));
    }
    for (const auto& [ask, name, subject, end] :
         {std::tuple{Ask(&TsdbHandlersTest::get), "RETURN_TSDB_GET_DATA", "TSDB Get Data", " x0"},
          {&TsdbHandlersTest::latest, "RETURN_TSDB_GET_LATEST_DATA_RECORD", "TSDB Get Latest Data",
           " none"}}) {
        expect(ask, kUnknown, prop::tsdbIncident,
               fmt::format("{} 1 {} got request for unknown object 9.9{}", name, subject, end));
        expect(ask, root, prop::tsdbIncident,
               fmt::format("{} 14 Request of tsdb property from Domain{}", name, end));
        for (const uint32_t property : {prop::tsdbForecast, prop::label})
            expect(ask, here, property,
                   fmt::format("{} 14 No tsdbIndex found in Node{}", name, end));
        expect(ask, tql::id_t::from_node_id(bare), prop::tsdbIncident,
               fmt::format("{} 14 Request of null tsdb property 2601{}", name, end));
    }
}

TEST_F(TsdbHandlersTest, FirstDataMakesASeriesAndANewOneTakesThePlaceOfTheOld) {
    const auto id = tql::id_t::from_node_id(bare);
    // Refused: nothing is stored.
    store_answers(exevent(queue_t::dbms, next_uid(), "full"));
    append(id, prop::tsdbIncident, 7);
    EXPECT_EQ(answer(), "RETURN_TSDB_APPEND_DATA 14 Error allocating time series: full");
    EXPECT_EQ(index_of(bare), "Request of null tsdb property 2601");
    EXPECT_EQ(services.tsdb_callbacks.pending(), 0U);
    (void)store_reads();

    uint32_t uid = next_uid();
    store_answers(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, uid, 77));
    append_record(id, prop::tsdbIncident, 7);
    EXPECT_EQ(answer(), "RETURN_TSDB_APPEND_DATA_RECORD 0");
    EXPECT_EQ(shown(store_reads().get()), "put ffffffff operation 4 type 4 x1 for dbms");
    EXPECT_EQ(index_of(bare), "77");
    EXPECT_EQ(services.tsdb_callbacks.pending(), 1U) << "for the second answer";
    store_answers(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, uid, 77));
    take();
    EXPECT_EQ(services.tsdb_callbacks.pending(), 0U);
    append_record(id, prop::tsdbIncident, 7);
    EXPECT_EQ(answer(), "RETURN_TSDB_APPEND_DATA_RECORD 0") << "waits for nothing";
    EXPECT_EQ(shown(store_reads().get()), "put 4d operation 2 type 4 x1 for main");

    // The store has made another one, since that at hand wouldn't do.
    store.dropped.clear();
    store_answers(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, next_uid(), 78));
    put(id, prop::tsdbIncident, 7);
    EXPECT_EQ(answer(), "RETURN_TSDB_PUT_DATA 0");
    EXPECT_EQ(index_of(bare), "78");
    EXPECT_EQ(store.dropped, std::vector<uint32_t>{77});
    EXPECT_EQ(store.fault(), "");
}

TEST_F(TsdbHandlersTest, AppendsAnswerOnceWithAllThatWentWrong) {
    TSDB_Append_Data_Data three{
        tql::id_t::from_node_id(node), prop::tsdbIncident, tsdb::kIncidentData, {}, 0, ""};
    ask<TSDB_APPEND_DATA>(three);
    EXPECT_EQ(answer(), "RETURN_TSDB_APPEND_DATA 0") << "of nothing";
    for (int i = 0; i < 3; ++i) three.data.push_back(point());
    ask<TSDB_APPEND_DATA>(three);
    for (const char* failure : {"full", "", "gone"}) {
        EXPECT_EQ(answer(), "-") << "not all are stored";
        const auto put = store_reads();
        ASSERT_NE(put, nullptr);
        if (*failure == '\0')
            store_answers(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, put->uid, kSeries));
        else
            store_answers(exevent(queue_t::dbms, put->uid, failure));
        take();
    }
    EXPECT_EQ(answer(), "RETURN_TSDB_APPEND_DATA 14 full, gone");
    EXPECT_NE(log.find("Error putting datatype 4 into tsdbIncident of /n by dbms: full, gone"),
              std::string::npos)
        << log;

    // With the store's end nobody waits for ever.
    ask<TSDB_APPEND_DATA>(three);
    services.tsdb_callbacks.fail_all("ended");
    EXPECT_EQ(answer(), "RETURN_TSDB_APPEND_DATA 14 ended, ended, ended");
    EXPECT_EQ(services.tsdb_callbacks.pending(), 0U);
}

}  // namespace
}  // namespace dbms
