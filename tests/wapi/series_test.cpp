// Requests for time series, from the parameters to the answer, with the server played by the test.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "queues/series_kinds.h"
#include "support/fake_clock.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "wapi/series_endpoint.h"

namespace {

using nlohmann::json;
using queues::queue_t;

constexpr int64_t kNow = 1'700'000'000;
const std::string kPath = "/api/v1/series/1.5";

TEST(SeriesRequests, MomentsAreReadInEveryForm) {
    const std::pair<const char*, std::optional<int64_t>> cases[] = {
        {"now", kNow},
        {"-90m", kNow - 5400},
        {"-1d", kNow - 86'400},
        {"-2w", kNow - 1'209'600},
        {"-999999999w", 0},
        {"0", 0},
        {"1700000001", 1'700'000'001},
        {"2023-11-14T22:13:20Z", kNow},
        {"2023-11-14 22:13", kNow - 20},
        {"2023-11-14", 1'699'920'000},
        {"-1", {}},
        {"-d", {}},
        {"-1y", {}},
        {"--1d", {}},
        {"-1234567890d", {}},
        {"1d", {}},
        {"9223372036854775807", {}},
        {"", {}},
    };
    for (const auto& [text, moment] : cases)
        EXPECT_EQ(wapi::read_moment(text, kNow), moment) << text;
}

class SeriesTest : public testing::Test, private wapi::GatewayPorts {
  protected:
    SeriesTest() { clock.set_wall(kNow); }

    void get(std::vector<std::pair<std::string, std::string>> query = {},
             const std::string& path = kPath) {
        endpoint.take_request(++token, {.method = "GET", .path = path, .query = std::move(query)});
    }
    void post(const json& body) {
        endpoint.take_request(++token, {.method = "POST", .path = kPath, .body = body.dump()});
    }
    /// The last request that was sent to the server.
    template <queues::event_t N>
    const queues::record_t<N>& asked() {
        EXPECT_FALSE(sent.empty());
        EXPECT_EQ(sent.back()->number(), N);
        return queues::data<N>(*sent.back());
    }
    template <queues::event_t N>
    void reply(queues::record_t<N> record) {
        EXPECT_TRUE(endpoint.take_event(
            queues::devent<N>(queue_t::dbms, sent.back()->uid, std::move(record))));
    }
    /// The object that the first question asks for.
    void reply_object(std::optional<uint32_t> index, uint32_t property = prop::tsdbIndex) {
        tql::result_t node;
        node.class_ = cls::Check;
        node.id = {1, 5};
        tql::add<tql::property_string_t>(node.properties, prop::treeLabel, "web [ICMP]");
        tql::add<tql::property_blob_t>(node.properties, prop::unit,
                                       {0x51, 1, 0x11, 1, 1, 4, 0x21, 1});
        if (index) tql::add<tql::property_index_t>(node.properties, property, *index);
        reply<queues::RETURN_TQL_SELECT>({.res = {node}});
    }
    /// Status and, of a refusal, name and text.
    std::string outcome() {
        if (!answered) return "none";
        const wapi::Response response = *std::exchange(answered, std::nullopt);
        const json body = json::parse(response.body);
        if (!body.contains("error")) return std::to_string(response.status) + " " + body.dump();
        return fmt::format("{} {}: {}", response.status, body["error"]["name"].get<std::string>(),
                           body["error"]["text"].get<std::string>());
    }

    uint32_t new_uid() override { return ++uid; }
    bool send(const queues::event& event) override {
        if (server_is_gone) return false;
        sent.push_back(event.clone());
        return true;
    }
    void answer(wapi::token_t to, wapi::Response response) override {
        EXPECT_EQ(to, token);
        EXPECT_FALSE(answered) << "answered twice";
        answered = std::move(response);
    }
    bool open_stream(wapi::token_t, const std::string&) override { return false; }
    void write(wapi::token_t, std::string_view) override {}
    void end_stream(wapi::token_t) override {}

    support::FakeClock clock;
    wapi::SeriesEndpoint endpoint{*this, clock};
    std::vector<std::unique_ptr<queues::event>> sent;
    std::optional<wapi::Response> answered;
    wapi::token_t token = 0;
    uint32_t uid = 100;
    bool server_is_gone = false;
};

tsdb::data_entry_t measured(int64_t start, float average) {
    auto made = std::make_unique<tsdb::data_interval_continuous_t>();
    made->start = start;
    made->end = start + 59;
    made->min = 0.1F;
    made->avg = average;
    made->max = 9;
    made->ngood = 2;
    return tsdb::data_entry_t(std::move(made));
}

TEST_F(SeriesTest, RecordsAreAskedForAndTold) {
    get({{"from", "-1h"}, {"to", "now"}, {"count", "2"}, {"resolution", "900"}});
    EXPECT_EQ(asked<queues::TQL_SELECT>().root_ids.front(), tql::id_t(1, 5));
    reply_object(17);
    const auto& wanted = asked<queues::TSDB_GET_DATA>();
    EXPECT_EQ(wanted.start, kNow - 3600);
    EXPECT_EQ(wanted.end, kNow);
    EXPECT_EQ(wanted.count, 3U);  // one more, to know whether there are more
    EXPECT_EQ(wanted.flags, tsdb::get_flags(true, 900));
    EXPECT_EQ(wanted.index_property, prop::tsdbIndex);
    reply<queues::RETURN_TSDB_GET_DATA>(
        {.data_type = tsdb::kContinuousData,
         .data = {measured(60, 1), measured(120, 0.3F), measured(180, 2)}});
    const json body = json::parse(answered->body);
    EXPECT_EQ(body["layout"]["type"], "continuous");
    EXPECT_EQ(body["layout"]["levels"][0], json::parse(R"({"records":10080,"span_s":60})"));
    EXPECT_EQ(body["columns"][3], json::parse(R"({"name":"avg","type":"real","unit":"ms"})"));
    EXPECT_EQ(body["label"], "web [ICMP]");
    EXPECT_EQ(body["more"], true);
    ASSERT_EQ(body["records"].size(), 2U);
    EXPECT_EQ(body["records"][0],
              json::parse(R"({"start":"1970-01-01T00:02:00Z","end":"1970-01-01T00:02:59Z",
                              "min":0.1,"avg":0.3,"max":9.0,"good":2,"bad":0})"));
}

TEST_F(SeriesTest, StatesAndIncidentsHaveColumnsOfTheirOwn) {
    get();
    reply_object(17);
    auto seen = std::make_unique<tsdb::data_interval_enum_t>();
    seen->mask = 0x80000005;
    reply<queues::RETURN_TSDB_GET_DATA>(
        {.data_type = tsdb::kEnumeratedData, .data = {tsdb::data_entry_t(std::move(seen))}});
    EXPECT_EQ(json::parse(std::exchange(answered, {})->body)["records"][0]["states"],
              json::parse("[0,2,31]"));

    get({{"property", "tsdbIncident"}});
    reply_object(18, prop::tsdbIncident);
    auto incident = std::make_unique<tsdb::data_interval_incident_t>();
    incident->message = "bell \x07 \xff";
    incident->time = kNow;
    reply<queues::RETURN_TSDB_GET_DATA>(
        {.data_type = tsdb::kIncidentData, .data = {tsdb::data_entry_t(std::move(incident))}});
    const json body = json::parse(answered->body);
    EXPECT_EQ(body["layout"]["levels"][0]["records"], 102'400);
    EXPECT_EQ(body["records"][0]["time"], "2023-11-14T22:13:20Z");
}

TEST_F(SeriesTest, WhatCanNotBeReadIsToldWhy) {
    const std::pair<std::vector<std::pair<std::string, std::string>>, const char*> wrong[] = {
        {{{"property", "label"}},
         "400 NO_SERIES_PROPERTY: Property label holds no time series, these do: tsdbIndex, "
         "tsdbIncident, tsdbForecast"},
        {{{"property", "colour"}}, "400 ERR_NO_SUCH_PROPERTY: Unknown property \"colour\""},
        {{{"from", "then"}},
         "400 BAD_REQUEST: Parameter \"from\": \"then\" is no time, expected one like "
         "2026-11-23T13:00:00Z, seconds since 1970, now, or -90m, -12h, -1d, -2w"},
        {{{"from", "7"}, {"to", "6"}}, "400 BAD_REQUEST: \"from\", 7, lies behind \"to\", 6"},
        {{{"count", "0"}}, "400 BAD_REQUEST: Parameter \"count\" must be at least 1"},
        {{{"count", "20001"}},
         "400 BAD_REQUEST: Parameter \"count\": \"20001\" is no number of records up to 20000"},
        {{{"until", "now"}}, "400 BAD_REQUEST: Unknown parameter \"until\""},
    };
    for (const auto& [query, text] : wrong) {
        get(query);
        EXPECT_EQ(outcome(), text);
    }
    get({}, "/api/v1/series/1");
    EXPECT_EQ(outcome(), "400 BAD_REQUEST: \"1\" is no id, expected one like 1.4294960001");
    EXPECT_TRUE(sent.empty());

    get();
    reply<queues::RETURN_TQL_SELECT>({});
    EXPECT_EQ(outcome(), "404 ERR_NO_SUCH_ID: 1.5 not found");
    get({{"property", "tsdbForecast"}});
    reply_object(17);
    EXPECT_EQ(outcome(), "400 ERR_NO_SUCH_PROPERTY: Check 1.5 has no property tsdbForecast");
    get();
    reply_object(tsdb::kNoSeries);
    EXPECT_EQ(outcome(), "404 NO_SERIES: 1.5 has no time series in tsdbIndex yet");
    get();
    reply_object(17);
    reply<queues::RETURN_TSDB_GET_DATA>({.status = 14, .details = {{1, "TSDB ended"}}});
    EXPECT_EQ(outcome(), "503 UNAVAILABLE: The time series can't be reached: TSDB ended");
    get();
    reply_object(17);
    endpoint.peer_lost(queue_t::dbms);
    EXPECT_EQ(outcome(), "503 UNAVAILABLE: The server ended before it answered");
    get();
    clock.advance_us(wapi::SeriesEndpoint::kAnswerLimit_us);
    endpoint.check_deadlines();
    EXPECT_EQ(outcome(), "504 NO_ANSWER: The server did not answer in time");
    server_is_gone = true;
    get();
    EXPECT_EQ(outcome(), "503 UNAVAILABLE: The server is not running");
}

TEST_F(SeriesTest, RecordsAreAppendedAsTheSeriesHasThem) {
    post({{"records",
           {{{"value", 1.5}, {"time", "-1m"}},
            {{"avg", 2}, {"max", 3}, {"start", 60}, {"end", 120}, {"good", 4}}}}});
    reply_object(17);
    EXPECT_EQ(asked<queues::TSDB_GET_LATEST_DATA_RECORD>().index_property, prop::tsdbIndex);
    reply<queues::RETURN_TSDB_GET_LATEST_DATA_RECORD>({.data_type = tsdb::kUptimeData});
    const auto& appended = asked<queues::TSDB_APPEND_DATA>();
    EXPECT_EQ(appended.data_type, tsdb::kUptimeData);
    ASSERT_EQ(appended.data.size(), 2U);
    const auto& first =
        static_cast<const tsdb::data_interval_continuous_t&>(*appended.data[0].get());
    EXPECT_EQ(std::tuple(first.start, first.end, first.min, first.max, first.ngood),
              std::tuple(kNow - 60, kNow - 60, 1.5F, 1.5F, 1U));
    const auto& second =
        static_cast<const tsdb::data_interval_continuous_t&>(*appended.data[1].get());
    EXPECT_EQ(std::tuple(second.start, second.end, second.min, second.max, second.ngood),
              std::tuple(60, 120, 2.0F, 3.0F, 4U));
    reply<queues::RETURN_TSDB_APPEND_DATA>({});
    EXPECT_EQ(outcome(), R"(200 {"appended":2,"id":"1.5","property":"tsdbIndex"})");

    // The first incident makes its series; other first data would have to tell its type.
    post({{"property", "tsdbIncident"}, {"records", {{{"message", "down"}, {"severity", 2}}}}});
    reply_object(tsdb::kNoSeries, prop::tsdbIncident);
    EXPECT_EQ(asked<queues::TSDB_APPEND_DATA>().data_type, tsdb::kIncidentData);
    reply<queues::RETURN_TSDB_APPEND_DATA>({.status = 14, .details = {{1, "disk full"}}});
    EXPECT_EQ(outcome(), "503 UNAVAILABLE: The time series can't be reached: disk full");
    post({{"records", {{{"value", 1}}}}});
    reply_object(tsdb::kNoSeries);
    EXPECT_EQ(outcome(), "404 NO_SERIES: 1.5 has no time series in tsdbIndex yet");
}

TEST_F(SeriesTest, WrongRecordsAreRefusedWhole) {
    for (const json& records : {json(5), json::array(), json{1}, json(1001, json::object())}) {
        post({{"records", records}});
        EXPECT_EQ(outcome(),
                  "400 BAD_REQUEST: Field \"records\" must be a list of 1 to 1000 objects");
    }
    const std::tuple<uint32_t, const char*, const char*> wrong[] = {
        {tsdb::kContinuousData, R"({"message": "a"})", "field \"avg\" must be a number"},
        {tsdb::kContinuousData, R"({"value": 1, "avg": 2})",
         "unknown field \"avg\" for a record of this series"},
        {tsdb::kContinuousData, R"({"value": 1e300})", "field \"value\" must be a smaller number"},
        {tsdb::kContinuousData, R"({"value": 1, "good": -1})",
         "field \"good\" must be a number from 0 to 4294967295"},
        {tsdb::kContinuousData, R"({"value": 1, "start": 9, "end": 8})", "ends before it starts"},
        {tsdb::kEnumeratedData, R"({"state": 32})",
         "field \"state\" must be a number from 0 to 31"},
        {tsdb::kIncidentData, R"({"severity": 1})", "field \"message\" must be a text"},
    };
    for (const auto& [data_type, record, text] : wrong) {
        const size_t before = sent.size();
        const char* sound = data_type == tsdb::kIncidentData     ? R"({"message": ""})"
                            : data_type == tsdb::kEnumeratedData ? R"({"state": 31})"
                                                                 : R"({"value": 1})";
        post({{"records", json::array({json::parse(sound), json::parse(record)})}});
        reply_object(17);
        reply<queues::RETURN_TSDB_GET_LATEST_DATA_RECORD>({.data_type = data_type});
        const std::string told = outcome();
        EXPECT_TRUE(told.starts_with("400 BAD_REQUEST: Record 2") && told.ends_with(text)) << told;
        EXPECT_EQ(sent.size(), before + 2);
    }
}

}  // namespace
