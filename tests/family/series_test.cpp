// Checks and the process that keeps their time series: a check gets its series when it is made, a
// store that is slow or dies costs time and a restart, and nothing that was acknowledged.
#include <future>
#include <gtest/gtest.h>
#include <signal.h>

#include "running_family.h"

namespace family {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr uint32_t kNoSeries = 0xFFFFFFFF;

class Series : public testing::Test {
  protected:
    explicit Series(const std::string& settings = {}) : family(4U << 20, settings) {
        node = create_node("web");
    }
    /// Each request has a connection of its own, so that several can wait at once.
    [[nodiscard]] Outcome ask(const std::string& path, const json& body) const {
        cli::ApiClient api(family.url());
        return post(api, path, body);
    }
    [[nodiscard]] std::string create_node(const std::string& name) const {
        const Outcome made =
            ask("/api/v1/create",
                {{"parent", "0.1"}, {"class", "Node"}, {"properties", {{"name", name}}}});
        EXPECT_TRUE(made.ok()) << made.text;
        return made.ok() ? made.answer->at("id").get<std::string>() : std::string();
    }
    [[nodiscard]] Outcome create_check(const std::string& name) const {
        return ask("/api/v1/create",
                   {{"parent", node + ".0"},
                    {"class", "Check"},
                    {"properties", {{"remoteName", name}, {"remoteType", "ICMP"}}}});
    }
    /// The index of the check's series.
    [[nodiscard]] uint32_t series_of(const std::string& check) const {
        const Outcome found =
            ask("/api/v1/select", {{"roots", {check}}, {"pattern", "Check[tsdbIndex]"}});
        EXPECT_TRUE(found.ok()) << found.text;
        return found.answer->at("results").at(0).at("properties").at("tsdbIndex").get<uint32_t>();
    }

    [[nodiscard]] std::string create_first() const {
        const Outcome first = create_check("a");
        EXPECT_TRUE(first.ok()) << first.text;
        return first.answer->at("id");
    }
    /// By itself, and what was acknowledged is still there.
    void expect_service_again(const std::string& first, uint32_t series) {
        Outcome again;
        for (int tries = 0; tries < 120 && !again.ok(); ++tries) {
            EXPECT_TRUE(family.wait_healthy()) << family.log_text();
            again = create_check("c");
            if (!again.ok()) std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        ASSERT_TRUE(again.ok()) << again.text << family.log_text();
        EXPECT_EQ(series_of(first), series);
        EXPECT_NE(series_of(again.answer->at("id")), series);
    }

    RunningFamily family;
    std::string node;
};

TEST_F(Series, ACheckGetsOneAndASlowStoreOnlyCostsTime) {
    const Outcome first = create_check("a");
    ASSERT_TRUE(first.ok()) << first.text;
    const uint32_t series = series_of(first.answer->at("id"));
    EXPECT_NE(series, kNoSeries);

    const pid_t store = family.child_pid("tsdb");
    ASSERT_GT(store, 0);
    ::kill(store, SIGSTOP);
    auto second = std::async(std::launch::async, [&] { return create_check("b"); });
    // Asked while the server waits for the store, answered after it, in order.
    auto other = std::async(std::launch::async, [&] { return create_node("db"); });
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
    ::kill(store, SIGCONT);
    const Outcome waited = second.get();
    ASSERT_TRUE(waited.ok()) << waited.text;
    EXPECT_NE(series_of(waited.answer->at("id")), kNoSeries);
    EXPECT_NE(series_of(waited.answer->at("id")), series);
    EXPECT_NE(other.get(), "");
    EXPECT_EQ(family.stop().code, 0) << family.log_text();
}

TEST_F(Series, RecordsGoInAndComeOutThroughTheGatewayAndOutliveTheStore) {
    const Outcome check = create_check("a");
    ASSERT_TRUE(check.ok()) << check.text;
    const std::string path = "/api/v1/series/" + check.answer->at("id").get<std::string>();
    const auto read = [&](const std::string& parameters) {
        cli::ApiClient api(family.url());
        return api.get(path + parameters).at("records");
    };
    EXPECT_TRUE(read("").empty());
    json records = json::array();
    for (int minute = 0; minute < 30; ++minute)
        records.push_back({{"time", 1'700'000'100 + 60 * minute}, {"value", minute}});
    const Outcome appended = ask(path, {{"records", records}});
    ASSERT_TRUE(appended.ok()) << appended.text;

    // An acknowledged append is durable.
    ::kill(family.child_pid("tsdb"), SIGKILL);
    ordered_json found;
    for (int tries = 0; tries < 120 && found.empty(); ++tries) {
        try {
            found = read("?from=2023-11-14T22:16:00Z&to=1700000400");
        } catch (const cli::CommandError& away) {
            EXPECT_EQ(away.exit_code(), cli::kNotReachable) << away.text();
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
    }
    ASSERT_EQ(found.size(), 5U) << family.log_text();
    EXPECT_EQ(found[0]["start"], "2023-11-14T22:16:00Z");
    EXPECT_EQ(found[4]["avg"], 5.0);
    // By the quarter of an hour, and only the newest.
    found = read("?resolution=900&count=1");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]["max"], 29.0);
    EXPECT_EQ(found[0]["end"], "2023-11-14T22:44:00Z");

    const std::string incidents = "/api/v1/series/" + node;
    EXPECT_FALSE(
        ask(incidents, {{"property", "tsdbIncident"}, {"records", {{{"value", 1}}}}}).ok());
    const Outcome incident =
        ask(incidents, {{"property", "tsdbIncident"}, {"records", {{{"message", "link down"}}}}});
    ASSERT_TRUE(incident.ok()) << incident.text;
    cli::ApiClient api(family.url());
    EXPECT_EQ(api.get(incidents + "?property=tsdbIncident").at("records").at(0).at("message"),
              "link down");
    EXPECT_EQ(family.stop().code, 0) << family.log_text();
}

TEST_F(Series, AStoreThatDiesIsStartedAgainAndChecksCanBeMadeAgain) {
    const std::string first = create_first();
    const uint32_t series = series_of(first);
    const pid_t store = family.child_pid("tsdb");
    ::kill(store, SIGSTOP);
    auto second = std::async(std::launch::async, [&] { return create_check("b"); });
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
    ::kill(store, SIGKILL);
    EXPECT_FALSE(second.get().ok());
    expect_service_again(first, series);
    EXPECT_EQ(family.stop().code, 0) << family.log_text();
}

/// Whoever waits for a store that hangs waits as long as the family is patient.
class HungStore : public Series {
  protected:
    HungStore() : Series("stuck_warning_ms = 500\nstuck_limit_ms = 3000\n") {}
};

TEST_F(HungStore, IsEndedAndServiceComesBack) {
    const std::string first = create_first();
    const uint32_t series = series_of(first);
    const pid_t store = family.child_pid("tsdb");
    ::kill(store, SIGSTOP);
    const Outcome second = create_check("b");
    EXPECT_FALSE(second.ok());
    EXPECT_TRUE(family.logs("tsdb does not answer for ")) << family.log_text();
    EXPECT_TRUE(family.logs(" s, ending it by force")) << family.log_text();
    expect_service_again(first, series);
    EXPECT_NE(family.child_pid("tsdb"), store);
    (void)family.stop();
}

}  // namespace
}  // namespace family
