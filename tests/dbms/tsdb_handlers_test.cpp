// Requests for the series of an object, with a time series store whose answers the test gives.
#include "dbms/tsdb_handlers.h"

#include <gtest/gtest.h>

#include "dbcache/time_series.h"
#include "dbms/tsdb_callbacks.h"
#include "queues/records/tsdb_requests.h"
#include "queues/series_kinds.h"
#include "test_family.h"

namespace dbms {
namespace {

using namespace queues;

class TsdbHandlersTest : public testing::Test, protected dbms_test::TestFamily {
  protected:
    TsdbHandlersTest() {
        settle_all();
        node = store.node(dbcache::kRootId, "n");
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
    void ask(void (*handler)(EventContext&, event&), record_t<N> record, uint32_t uid = 7) {
        devent<N> received(queue_t::main, uid, std::move(record));
        EventContext context{services,
                             {.engine = services.engine,
                              .clock = services.clock,
                              .sender = queue_t::main,
                              .new_version = {},
                              .user = {}}};
        handler(context, received);
    }
    TSDB_Append_Data_Data append() {
        auto point = std::make_unique<tsdb::data_interval_incident_t>();
        point->message = "m";
        TSDB_Append_Data_Data out;
        out.id = tql::id_t::from_node_id(node);
        out.index_property = prop::tsdbIncident;
        out.data_type = tsdb::kIncidentData;
        out.data.emplace_back(std::move(point));
        return out;
    }
    std::unique_ptr<event> store_reads() {
        settle_all();
        return tsdb_queue.front().isReady() ? tsdb_queue.read() : nullptr;
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
        ASSERT_TRUE(services.tsdb_callbacks.take(*received));
    }
    /// The answer to the asker: status and first detail; "-" for none.
    template <event_t N>
    std::string answer() {
        settle_all();
        if (!main.front().isReady()) return "-";
        const auto received = main.read();
        if (received == nullptr || received->number() != N) return "another event";
        const auto& record = data<N>(*received);
        return record.details.empty()
                   ? std::to_string(record.status)
                   : fmt::format("{} {}", record.status, record.details.front().msg);
    }
    std::string index() {
        try {
            return std::to_string(dbcache::tsdb_index(*store.store->resolver().find_object(node),
                                                      prop::tsdbIncident));
        } catch (const errors::db_anomaly& failure) {
            return failure.text();
        }
    }

    io::ChildMessenger tsdb_messenger{static_cast<uint32_t>(queue_t::tsdb), parent.access()};
    childqueue tsdb_queue{tsdb_messenger, store.clock};
    NodeId node;
};

TEST_F(TsdbHandlersTest, FirstDataMakesASeriesAndLaterDataDoesNotWait) {
    const uint32_t uid = next_uid();
    store_answers(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, uid, 77));
    ask<TSDB_APPEND_DATA>(ev_tsdb_append_data, append());
    EXPECT_EQ(answer<RETURN_TSDB_APPEND_DATA>(), "0");
    const auto first = store_reads();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(data<PUT_DATA>(*first).operation, tsdb::kAllocateAndStore);
    EXPECT_EQ(data<PUT_DATA>(*first).handle, tsdb::kNoSeries);
    EXPECT_EQ(index(), "77");
    EXPECT_EQ(services.tsdb_callbacks.pending(), 1U) << "for the second answer";
    store_answers(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, uid, 77));
    take();
    EXPECT_EQ(services.tsdb_callbacks.pending(), 0U);

    TSDB_Append_Data_Data two = append();
    two.data.push_back(two.data.front());
    ask<TSDB_APPEND_DATA>(ev_tsdb_append_data, two);
    for (const bool good : {true, false}) {
        EXPECT_EQ(answer<RETURN_TSDB_APPEND_DATA>(), "-") << "not all are stored";
        const auto put = store_reads();
        ASSERT_NE(put, nullptr);
        EXPECT_EQ(data<PUT_DATA>(*put).handle, 77U);
        EXPECT_EQ(data<PUT_DATA>(*put).operation, tsdb::kStore);
        if (good)
            store_answers(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, put->uid, 77));
        else
            store_answers(exevent(queue_t::dbms, put->uid, "full"));
        take();
    }
    EXPECT_EQ(answer<RETURN_TSDB_APPEND_DATA>(), "14 full");
    EXPECT_EQ(store.fault(), "");
}

TEST_F(TsdbHandlersTest, ARefusedSeriesIsToldAndNothingIsStored) {
    store_answers(exevent(queue_t::dbms, next_uid(), "full"));
    ask<TSDB_APPEND_DATA>(ev_tsdb_append_data, append());
    EXPECT_EQ(answer<RETURN_TSDB_APPEND_DATA>(), "14 Error allocating time series: full");
    EXPECT_EQ(index(), fmt::format("Request of null tsdb property {}", prop::tsdbIncident));
    EXPECT_EQ(services.tsdb_callbacks.pending(), 0U);
}

TEST_F(TsdbHandlersTest, GetsWaitForNobodyAndFailWithTheStore) {
    store_answers(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, next_uid(), 5));
    ask<TSDB_APPEND_DATA>(ev_tsdb_append_data, append(), kNoReplyAllOnes);
    EXPECT_EQ(answer<RETURN_TSDB_APPEND_DATA>(), "-");
    (void)store_reads();
    TSDB_Get_Data_Data wanted;
    wanted.id = tql::id_t::from_node_id(node);
    wanted.index_property = prop::tsdbIncident;
    ask<TSDB_GET_DATA>(ev_tsdb_get_data, wanted);
    const auto get = store_reads();
    ASSERT_NE(get, nullptr);
    EXPECT_EQ(data<GET_DATA>(*get).handle, 5U);
    EXPECT_EQ(data<GET_DATA>(*get).data_type, tsdb::kIncidentData);
    store_answers(devent<RETURN_GET_DATA>(queue_t::dbms, get->uid));
    take();
    EXPECT_EQ(answer<RETURN_TSDB_GET_DATA>(), "0");

    ask<TSDB_GET_DATA>(ev_tsdb_get_data, wanted);
    services.tsdb_callbacks.fail_all("gone");
    EXPECT_EQ(answer<RETURN_TSDB_GET_DATA>(), "14 gone");

    wanted.id = tql::id_t{9, 9};
    ask<TSDB_GET_DATA>(ev_tsdb_get_data, wanted);
    EXPECT_NE(answer<RETURN_TSDB_GET_DATA>().find("TSDB Get Data got request for unknown object"),
              std::string::npos);
    TSDB_Append_Data_Data wrong = append();
    wrong.index_property = prop::label;
    ask<TSDB_APPEND_DATA>(ev_tsdb_append_data, wrong);
    EXPECT_EQ(answer<RETURN_TSDB_APPEND_DATA>(), "14 Put_Data called with property of wrong type");
    wrong.index_property = prop::tsdbForecast;
    ask<TSDB_APPEND_DATA>(ev_tsdb_append_data, wrong);
    EXPECT_EQ(
        answer<RETURN_TSDB_APPEND_DATA>(),
        fmt::format("14 Append_Data was requested to put in property {}", prop::tsdbForecast));
}

}  // namespace
}  // namespace dbms
