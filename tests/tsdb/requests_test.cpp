// What the process answers, and when: promises only after a commit, trouble always with its reason.
#include "tsdb/requests.h"

#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <set>

#include "log/log.h"
#include "queues/records/tsdb_requests.h"
#include "support/fake_clock.h"
#include "support/temp_dir.h"
#include "tsdb/failures.h"
#include "tsdb/sqlite_storage.h"

namespace tsdb {
namespace {

using namespace queues;

constexpr queue_t kAsker = queue_t::dbms;
constexpr const char* kNoRoom = "database or disk is full";

/// Has room for so many records; then it loses its transaction, as a full disk does, or fails the
/// one write alone.
class SmallStorage final : public SqliteStorage {
  public:
    SmallStorage(const std::string& path, int& room, const bool& loses_all)
        : SqliteStorage(path, 100), room_(room), loses_all_(loses_all) {}
    void put(uint32_t index, uint32_t level, RecordKey key, std::string_view bytes) override {
        if (room_ == 0) {
            if (loses_all_) abort();
            throw EStorage(kNoRoom);
        }
        --room_;
        SqliteStorage::put(index, level, key, bytes);
    }

  private:
    int& room_;
    const bool& loses_all_;
};

class RequestsTest : public testing::Test {
  protected:
    template <event_t N>
    void ask(uint32_t uid, record_t<N> record) {
        devent<N> asked(kAsker, uid, std::move(record));
        ASSERT_TRUE(requests->take(asked));
    }
    void put(uint32_t uid, uint32_t handle, uint32_t operation, int64_t time,
             uint32_t type = kIncidentData) {
        auto point = std::make_unique<data_interval_incident_t>();
        point->time = time;
        point->message = "m";
        Put_Data_Data wanted{.handle = handle, .operation = operation, .data_type = type};
        wanted.data.emplace_back(std::move(point));
        ask<PUT_DATA>(uid, std::move(wanted));
    }
    /// What was answered since the last call: "UID NAME" or "UID text", with the index of a series.
    std::string answers() { return std::exchange(sent, {}); }
    void note(const event& answer) {
        sent += sent.empty() ? "" : ", ";
        if (answer.number() == MESSAGE_EXCEPTION)
            sent += fmt::format("{} {}", answer.uid, static_cast<const exevent&>(answer).text);
        else if (answer.number() == RETURN_PUT_DATA_ALLOC)
            sent += fmt::format("{} put {}", answer.uid, data<RETURN_PUT_DATA_ALLOC>(answer));
        else if (answer.number() == RETURN_CREATE_TIMESERIES)
            sent += fmt::format("{} made {}", answer.uid, data<RETURN_CREATE_TIMESERIES>(answer));
        else if (answer.number() == RETURN_GET_DATA)
            sent += fmt::format("{} got {}", answer.uid, data<RETURN_GET_DATA>(answer).data.size());
        else
            sent += fmt::format("{} {}", answer.uid, event_name(&answer));
    }
    void open() {
        requests = std::make_unique<Requests>(
            clock, [this] { return std::make_unique<SmallStorage>(path, room, loses_all); },
            [this](const event& answer) { note(answer); });
    }

    support::TempDir dir;
    std::string path = dir.file("tsdb");
    support::FakeClock clock;
    int room = 1'000'000;
    bool loses_all = true;
    std::string sent;
    std::string log;
    logging::OutletScope outlet{
        [this](logging::level_t, std::string_view line) { log += fmt::format("{}\n", line); }};
    std::unique_ptr<Requests> requests;
};

TEST_F(RequestsTest, PromisesAreGivenAfterTheCommit) {
    open();
    ask<CREATE_TIMESERIES>(7, small_incident_layout());
    put(8, 101, kStore, 5);
    put(9, kNoSeries, kAllocateAndStore, 5);
    put(10, 101, kAllocateAndStore, 6);
    EXPECT_EQ(answers(), "");
    EXPECT_TRUE(requests->someone_waits());
    requests->commit();
    EXPECT_EQ(answers(), "7 made 101, 8 put 101, 9 put 102, 9 put 102, 10 put 101, 10 put 101");
    EXPECT_FALSE(requests->someone_waits());

    // Nobody waits for these, and a second is as long as they may lie about.
    put(kNoReply, 101, kStore, 7);
    put(kNoReplyAllOnes, 101, kStore, 8);
    EXPECT_FALSE(requests->must_commit());
    clock.advance_us(Requests::kCommitEvery_us - 1);
    EXPECT_FALSE(requests->must_commit());
    clock.advance_us(1);
    EXPECT_TRUE(requests->must_commit());
    requests->commit();
    EXPECT_FALSE(requests->must_commit());
    EXPECT_EQ(answers(), "");
    ask<GET_DATA>(11, {.handle = 101, .data_type = kIncidentData});
    EXPECT_EQ(answers(), "11 got 4");
}

TEST_F(RequestsTest, SeriesMadeAheadAreDurableAndHandedOutOnce) {
    std::set<uint32_t> made;
    size_t commits = 0;
    const auto make = [&](size_t wanted) {
        for (size_t i = 0; i < wanted; ++i) {
            ask<CREATE_TIMESERIES>(1, i % 2 == 0 ? uptime_layout() : small_incident_layout());
            if (requests->someone_waits()) {
                ++commits;
                requests->commit();
            }
            const std::string answer = answers();
            ASSERT_TRUE(answer.starts_with("1 made ")) << answer;
            EXPECT_TRUE(made.insert(static_cast<uint32_t>(std::stoul(answer.substr(7)))).second);
        }
    };
    const auto expect_made = [&](bool only) {
        for (uint32_t index = 100; index < 600; ++index) {
            ask<DESCRIBE_TIMESERIES>(1, index);
            const std::string answer = answers();
            if (!made.contains(index) && !only) continue;
            EXPECT_EQ(answer, made.contains(index)
                                  ? "1 RETURN_DESCRIBE_TIMESERIES"
                                  : fmt::format("1 There is no time series {}", index));
        }
    };
    open();
    make(100);
    EXPECT_LE(commits, 14U) << "not one for each";
    requests->finish();
    requests.reset();
    open();
    expect_made(true);
    make(20);
    requests.reset();  // killed
    open();
    expect_made(false);
    make(20);
}

TEST_F(RequestsTest, WhatCantBeIsAnsweredWithTheReason) {
    open();
    ask<CREATE_TIMESERIES>(1, {9, {{1, 1}}});
    put(2, 4711, kStore, 5);
    put(3, 4711, 1, 5);
    put(4, kNoSeries, kAllocateAndStore, 5, 77);
    put(5, kNoSeries, kAllocateAndStore, -5);
    ask<DESCRIBE_TIMESERIES>(6, 4711);
    ask<DELETE_TIMESERIES>(7, 4711);
    put(kNoReply, 4711, kStore, 5);
    requests->commit();
    EXPECT_EQ(answers(),
              "1 9 is no type of time series, 2 There is no time series 4711, "
              "3 1 is no operation of PUT_DATA, 4 77 is no type of data, "
              "6 There is no time series 4711, 7 RETURN_DELETE_TIMESERIES, "
              "5 put 101, 5 An incident at -5 can't be");
    EXPECT_NE(log.find("PUT_DATA from dbms: There is no time series 4711"), std::string::npos)
        << log;
    devent<SOCKETIO_TIDY_CACHES> foreign(kAsker, 8);
    EXPECT_FALSE(requests->take(foreign));
}

TEST_F(RequestsTest, AFullDiskFailsWhatWasPromisedToNobodyYet) {
    open();
    ask<CREATE_TIMESERIES>(1, small_incident_layout());
    requests->commit();
    answers();
    room = 2;
    put(2, 101, kStore, 5);
    put(3, 101, kStore, 6);
    put(4, 101, kStore, 7);
    EXPECT_EQ(answers(), fmt::format("2 {0}, 3 {0}, 4 {0}", kNoRoom));
    requests->commit();
    EXPECT_EQ(answers(), "");
    room = 100;
    put(5, 101, kStore, 5);
    requests->commit();
    ask<GET_DATA>(6, {.handle = 101, .data_type = kIncidentData});
    EXPECT_EQ(answers(), "5 put 101, 6 got 1");
    EXPECT_NE(log.find("All data since the last commit is lost"), std::string::npos) << log;
}

TEST_F(RequestsTest, ARecordThatFitsOnlyInPartLeavesNothing) {
    open();
    ask<CREATE_TIMESERIES>(1, continuous_layout());
    requests->commit();
    answers();
    loses_all = false;
    const auto put_one = [&](uint32_t uid) {
        auto point = std::make_unique<data_interval_continuous_t>();
        point->ngood = 1;
        Put_Data_Data wanted{.handle = 101, .operation = kStore, .data_type = kContinuousData};
        wanted.data.emplace_back(std::move(point));
        ask<PUT_DATA>(uid, std::move(wanted));
    };
    room = 2;  // of five levels
    put_one(2);
    EXPECT_EQ(answers(), fmt::format("2 {}", kNoRoom));
    room = 100;
    requests->commit();
    const auto get = [&](uint32_t resolution_s) {
        ask<GET_DATA>(
            3,
            {.handle = 101, .data_type = kContinuousData, .flags = get_flags(false, resolution_s)});
        return answers();
    };
    EXPECT_EQ(get(0), "3 got 0");
    put_one(4);
    requests->commit();
    EXPECT_EQ(answers(), "4 put 101");
    for (const uint32_t resolution_s : {0U, 900U, 10800U}) EXPECT_EQ(get(resolution_s), "3 got 1");
}

TEST_F(RequestsTest, ADamagedFileIsToldOfAndTriedAgain) {
    std::ofstream(path) << std::string(10'000, 'x');
    open();
    ask<CREATE_TIMESERIES>(1, small_incident_layout());
    EXPECT_EQ(answers(),
              fmt::format("1 Can't open the time series in {}: file is not a database", path));
    std::ofstream(path, std::ios::trunc).close();
    ask<DESCRIBE_TIMESERIES>(2, 5);
    EXPECT_NE(answers().find("is not a database"), std::string::npos) << "not at once";
    clock.advance_us(Requests::kOpenAgain_us);
    ask<CREATE_TIMESERIES>(3, small_incident_layout());
    requests->commit();
    EXPECT_EQ(answers(), "3 made 101");
}

}  // namespace
}  // namespace tsdb
