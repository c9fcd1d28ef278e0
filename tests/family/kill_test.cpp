// The promise that all else rests on: whatever was acknowledged is there after the server was
// killed at any moment, and nobody else of the family suffers.
#include <atomic>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <set>
#include <signal.h>
#include <thread>
#include <vector>

#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/verify.h"
#include "running_family.h"

namespace family {
namespace {

using nlohmann::json;

constexpr int kKills = 50;
constexpr int kWriters = 4;

std::string label_of(const std::string& name) {
    return "label of " + name;
}

/// Creates nodes without pause over a connection of its own, and notes what was acknowledged.
class Writer {
  public:
    Writer(const std::string& url, std::string prefix, std::string parent)
        : url_(url),
          prefix_(std::move(prefix)),
          parent_(std::move(parent)),
          thread_([this] { work(); }) {}

    void stop() {
        stop_ = true;
        thread_.join();
    }

    [[nodiscard]] size_t acknowledged_count() const {
        const std::lock_guard lock(mutex_);
        return acknowledged_.size();
    }
    /// Names with their ids.
    [[nodiscard]] std::map<std::string, std::string> acknowledged() const {
        const std::lock_guard lock(mutex_);
        return acknowledged_;
    }
    [[nodiscard]] int unavailable() const { return unavailable_; }
    [[nodiscard]] std::vector<std::string> refusals() const {
        const std::lock_guard lock(mutex_);
        return refusals_;
    }

  private:
    void work() {
        cli::ApiClient api(url_);
        for (int number = 0; !stop_; ++number) {
            const std::string name = fmt::format("{}-{}", prefix_, number);
            const Outcome outcome =
                post(api, "/api/v1/create",
                     {{"parent", parent_},
                      {"class", "Node"},
                      {"properties", {{"name", name}, {"label", label_of(name)}}}});
            const std::lock_guard lock(mutex_);
            if (outcome.ok())
                acknowledged_[name] = (*outcome.answer)["id"].get<std::string>();
            else if (outcome.refused)
                refusals_.push_back(outcome.text);
            else
                ++unavailable_;
        }
    }

    std::string url_;
    std::string prefix_;
    std::string parent_;
    std::atomic<bool> stop_ = false;
    std::atomic<int> unavailable_ = 0;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> acknowledged_;
    std::vector<std::string> refusals_;
    std::thread thread_;
};

/// All nodes below the domain `parent` by name; checks that each is whole.
std::map<std::string, std::string> nodes_below(cli::Api& api, const std::string& parent) {
    std::map<std::string, std::string> found;
    const Outcome outcome = post(api, "/api/v1/select",
                                 {{"roots", {parent}}, {"pattern", "Domain > Node[name, label]"}});
    EXPECT_TRUE(outcome.ok()) << outcome.text;
    if (!outcome.ok()) return found;
    for (const auto& root : (*outcome.answer)["results"])
        for (const auto& node : root["children"]) {
            const std::string name = node["properties"]["name"].get<std::string>();
            EXPECT_EQ(node["properties"]["label"].get<std::string>(), label_of(name));
            EXPECT_TRUE(found.emplace(name, node["id"].get<std::string>()).second) << name;
        }
    return found;
}

std::string create_domain(cli::Api& api) {
    const Outcome outcome = post(api, "/api/v1/create",
                                 {{"parent", "0.1"},
                                  {"class", "Domain"},
                                  {"properties", {{"name", "site"}, {"label", "Site"}}}});
    EXPECT_TRUE(outcome.ok()) << outcome.text;
    return outcome.ok() ? (*outcome.answer)["id"].get<std::string>() : "";
}

void expect_all_there(const std::vector<std::unique_ptr<Writer>>& writers, cli::Api& api,
                      const std::string& domain) {
    // Taken first: what is acknowledged before the select has to be in it.
    std::map<std::string, std::string> acknowledged;
    for (const auto& writer : writers) acknowledged.merge(writer->acknowledged());
    const std::map<std::string, std::string> found = nodes_below(api, domain);
    for (const auto& [name, id] : acknowledged) {
        const auto node = found.find(name);
        if (node == found.end())
            ADD_FAILURE() << name << " was acknowledged and is gone";
        else
            EXPECT_EQ(node->second, id) << name;
    }
}

void verify_database(const RunningFamily& family) {
    platform::SystemFiles files;
    const platform::SystemClock clock;
    mdb::Database database(
        {.database_path = family.database_path(), .journal_path = family.journal_path()}, files,
        clock);
    mdb::IndexTable indexes(database);
    indexes.init_required_indexes();
    for (uint32_t n = 2; n < indexes.index_count(); ++n) EXPECT_FALSE(indexes.ensure_index(n));
    EXPECT_EQ(mdb::verify(database).text(), "");
}

TEST(KilledServer, KeepsEveryAcknowledgedObjectFiftyTimes) {
    RunningFamily family;
    cli::ApiClient api(family.url());
    const std::string domain = create_domain(api);
    const pid_t gateway = family.child_pid("wapi");
    std::vector<std::unique_ptr<Writer>> writers;
    for (int n = 0; n < kWriters; ++n)
        writers.push_back(std::make_unique<Writer>(family.url(), fmt::format("w{}", n), domain));
    const auto acknowledged_count = [&] {
        size_t sum = 0;
        for (const auto& writer : writers) sum += writer->acknowledged_count();
        return sum;
    };

    std::set<pid_t> servers;
    for (int round = 0; round < kKills && !HasFailure(); ++round) {
        SCOPED_TRACE(fmt::format("kill {}", round));
        // Each round ends at another distance from the start of the server.
        const size_t enough = acknowledged_count() + 1 + static_cast<size_t>(round % 10) * 7;
        for (int waited_ms = 0; acknowledged_count() < enough && waited_ms < 30'000; ++waited_ms)
            ::usleep(1000);
        ASSERT_GE(acknowledged_count(), enough) << family.log_text();
        const pid_t server = family.child_pid("dbms");
        ASSERT_GT(server, 0);
        EXPECT_TRUE(servers.insert(server).second);
        ASSERT_EQ(::kill(server, SIGKILL), 0);
        ASSERT_TRUE(family.wait_healthy()) << family.log_text();
        expect_all_there(writers, api, domain);
    }
    int unavailable = 0;
    for (const auto& writer : writers) {
        writer->stop();
        unavailable += writer->unavailable();
        // A create whose answer was lost may stand: its name is then taken, which no other reason
        // explains.
        for (const std::string& refusal : writer->refusals()) ADD_FAILURE() << refusal;
    }
    expect_all_there(writers, api, domain);
    EXPECT_EQ(family.child_pid("wapi"), gateway);
    EXPECT_GT(unavailable, 0) << "no client saw the server away";
    EXPECT_EQ(family.stop().code, 0);
    verify_database(family);
}

}  // namespace
}  // namespace family
