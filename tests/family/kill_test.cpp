// The promise that all else rests on: whatever was acknowledged is there after the server was
// killed at any moment, and nobody else of the family suffers.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <set>
#include <signal.h>
#include <vector>

#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/verify.h"
#include "writers.h"

namespace family {
namespace {

constexpr int kKills = 50;
constexpr int kWriters = 4;

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
    Writers writers;
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
        expect_there(acknowledged_to(writers), api, domain);
    }
    int unavailable = 0;
    for (const auto& writer : writers) {
        writer->stop();
        unavailable += writer->unavailable();
        // A create whose answer was lost may stand: its name is then taken, which no other reason
        // explains.
        for (const std::string& refusal : writer->refusals()) ADD_FAILURE() << refusal;
    }
    expect_there(acknowledged_to(writers), api, domain);
    EXPECT_EQ(family.child_pid("wapi"), gateway);
    EXPECT_GT(unavailable, 0) << "no client saw the server away";
    EXPECT_EQ(family.stop().code, 0);
    verify_database(family);
}

}  // namespace
}  // namespace family
