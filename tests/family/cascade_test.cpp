// The background delete in a real server: killed and stopped in the middle of it, the rest goes
// after the next start, and clients are served meanwhile.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "mdb/verify_files.h"
#include "platform/overlay_files.h"
#include "processes.h"
#include "writers.h"

namespace family {
namespace {

constexpr uint32_t kDebugOfServer = 2;
constexpr size_t kNodes = 3000;

size_t count(const std::string& text, const std::string& wanted) {
    size_t found = 0;
    for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1))
        ++found;
    return found;
}

class BackgroundDelete : public testing::Test {
  protected:
    [[nodiscard]] size_t logged(const std::string& text) const {
        return count(family.log_text(), text);
    }
    /// A domain with thousands of nodes; their ids.
    std::vector<std::string> fill(const std::string& domain) {
        Writers writers;
        for (int n = 0; n < 4; ++n)
            writers.push_back(
                std::make_unique<Writer>(family.url(), fmt::format("w{}", n), domain));
        EXPECT_TRUE(wait_for([&] { return acknowledged_to(writers).size() >= kNodes; }, 300));
        for (const auto& writer : writers) writer->stop();
        std::vector<std::string> ids;
        for (const auto& [name, id] : acknowledged_to(writers)) ids.push_back(id);
        return ids;
    }
    void remove(const std::string& id) {
        const Outcome outcome = post(api, "/api/v1/delete", {{"id", id}});
        EXPECT_TRUE(outcome.ok()) << outcome.text;
    }
    /// How many objects there are by each of `ids`, as a client sees it.
    [[nodiscard]] size_t seen(const std::vector<std::string>& ids) {
        const Outcome outcome =
            post(api, "/api/v1/select", {{"roots", ids}, {"pattern", "Node[name]"}});
        return outcome.ok() ? (*outcome.answer)["results"].size() : 0;
    }
    /// Objects that the walk has removed so far.
    [[nodiscard]] size_t removed() const { return logged("Deleting object"); }

    RunningFamily family{4U << 20, "", kDebugOfServer};
    cli::ApiClient api{family.url()};
};

TEST_F(BackgroundDelete, GoesOnAfterAKillAndAfterAStop) {
    const std::string domain = create_domain(api);
    const std::vector<std::string> nodes = fill(domain);
    ASSERT_GE(nodes.size(), kNodes);
    remove(domain);
    ASSERT_TRUE(wait_for([&] { return removed() >= 100; }));
    ASSERT_EQ(::kill(family.child_pid("dbms"), SIGKILL), 0);
    ASSERT_TRUE(family.wait_healthy()) << family.log_text();
    EXPECT_TRUE(family.logs("Incomplete cascading delete, resuming"));

    // Clients are served in the middle of it, and never see what is on its way out.
    const size_t before = removed();
    const std::string other = create_domain(api);
    EXPECT_EQ(seen({nodes.begin(), nodes.begin() + 50}), 0U);
    EXPECT_EQ(seen({nodes.end() - 50, nodes.end()}), 0U);
    remove(other);
    ASSERT_TRUE(wait_for([&] { return removed() >= before + 100; }));
    // Held until the family has begun to stop.
    const pid_t server = family.child_pid("dbms");
    ASSERT_EQ(::kill(server, SIGSTOP), 0);
    ASSERT_EQ(logged("Background cascading delete done"), 0U);
    ::kill(family.main_pid(), SIGTERM);
    ASSERT_TRUE(family.logs("Stopping the family"));
    ::kill(server, SIGCONT);
    EXPECT_EQ(family.wait_for_end().code, 0);
    EXPECT_EQ(logged("Incomplete cascading delete, pausing"), 1U);

    family.start();
    EXPECT_EQ(logged("Incomplete cascading delete, resuming"), 2U);
    ASSERT_TRUE(wait_for([&] { return logged("Background cascading delete done") == 1; }, 120));
    EXPECT_EQ(family.stop().code, 0);
    EXPECT_EQ(logged("Incomplete cascading delete, pausing"), 1U);
    // Killed steps may be done again, or be told of twice; nothing is left out.
    EXPECT_GE(removed(), nodes.size() + 2);

    platform::OverlayFiles files;
    const mdb::FileVerification found =
        mdb::verify_files(files, family.database_path(), family.journal_path(), {});
    EXPECT_EQ(found.verification.text(), "");
    // Root, sequence and the two settings objects of the cluster.
    EXPECT_EQ(found.verification.counts.objects, 4U);
}

}  // namespace
}  // namespace family
