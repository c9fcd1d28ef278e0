// A large tree, built, changed, moved about and partly deleted by several clients at once, with the
// family killed at random moments: each time the files verify clean, and after the next start
// exactly what was acknowledged is there.
//
// TARMIK_BIG_TREE=N makes it N hundredths of 200 domains, 5,000 nodes and 100,000 small objects;
// TARMIK_SEED chooses what the clients do and when the kills come. scripts/big-tree runs the whole.
#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <iostream>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <thread>

#include "processes.h"
#include "tarmik/api_client.h"
#include "tree_client.h"
#include "writers.h"

namespace family {
namespace {

constexpr int kKills = 10;
constexpr unsigned kClients = 4;
/// Root, sequence and the two settings objects of the cluster.
constexpr size_t kObjectsOfEmptyDatabase = 4;

size_t setting(const char* name, size_t otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

/// Who is killed, and in which order.
enum class kill_t { server_then_all, gateway_then_all, main_alone, server_alone, gateway_alone };
constexpr std::array kKillNames{"server, then the others", "gateway, then the others",
                                "main process alone", "server alone", "gateway alone"};

class BigTree : public testing::Test {
  protected:
    BigTree() {
        std::cout << fmt::format(
            "TARMIK_SEED={} TARMIK_BIG_TREE={}: {} domains, {} nodes, {} small objects\n", seed,
            hundredths, sizes.domains, sizes.nodes, sizes.small_objects());
        const std::string site = create_domain(api);
        const TreeSizes part{sizes.domains / kClients, sizes.nodes / kClients};
        for (unsigned n = 0; n < kClients; ++n) {
            const Outcome outcome = post(api, "/api/v1/create",
                                         {{"parent", site},
                                          {"class", "Domain"},
                                          {"properties", {{"name", fmt::format("part {}", n)}}}});
            EXPECT_TRUE(outcome.ok()) << outcome.text;
            if (!outcome.ok()) return;
            clients.push_back(std::make_unique<TreeClient>(family.url(), (*outcome.answer)["id"],
                                                           part, seed * kClients + n));
        }
    }
    template <class Figure>
    [[nodiscard]] size_t sum(Figure figure) const {
        size_t sum = 0;
        for (const auto& client : clients) sum += (client.get()->*figure)();
        return sum;
    }
    void for_all_clients(const std::function<void(TreeClient&)>& act) {
        std::vector<std::jthread> threads;
        for (const auto& client : clients) threads.emplace_back([&] { act(*client); });
    }

    /// Has the clients work until so much has been acknowledged and, if `in_delete`, another large
    /// delete has just begun; then kills, verifies, has the family go on and compares.
    void work_and_kill(size_t enough, bool in_delete, kill_t how) {
        std::atomic<bool> stop = false;
        std::vector<std::jthread> threads;
        for (const auto& client : clients) threads.emplace_back([&] { client->work(stop); });
        expect_in_time([&] { return sum(&TreeClient::acknowledged) >= enough; });
        if (in_delete) {
            TreeClient& deleter = *clients.front();
            deleter.ask_for_large_delete();
            expect_in_time([&] { return !deleter.large_delete_asked(); });
        }
        kill_some(how, [&] {
            stop = true;
            (void)verify();
        });
        threads.clear();
        for_all_clients([](TreeClient& client) { client.check(); });
    }
    void expect_in_time(const std::function<bool()>& done) {
        constexpr int kLimit_s = 900;
        EXPECT_TRUE(wait_for([&] { return done() || HasFailure(); }, kLimit_s)) << log_end();
    }

    void expect_another(const std::string& program, pid_t killed) {
        EXPECT_TRUE(wait_for([&] {
            const pid_t now = family.child_pid(program);
            return now > 0 && now != killed;
        })) << log_end();
    }
    /// Calls `look` when no server runs, and has the family up again afterwards.
    void kill_some(kill_t how, const std::function<void()>& look) {
        const pid_t server = family.child_pid("dbms");
        const pid_t gateway = family.child_pid("wapi");
        ASSERT_GT(server, 0);
        ASSERT_GT(gateway, 0);
        const platform::Fd server_end = platform::open_pidfd(server);
        const platform::Fd gateway_end = platform::open_pidfd(gateway);
        if (how == kill_t::gateway_alone) {
            ::kill(gateway, SIGKILL);
            expect_another("wapi", gateway);
            EXPECT_EQ(family.stop().code, 0);
            look();
            return family.start();
        }
        if (how == kill_t::server_alone) {
            // Held, so that it doesn't start the next server under the verification.
            ::kill(family.main_pid(), SIGSTOP);
            ::kill(server, SIGKILL);
            EXPECT_TRUE(ends_within(server_end.get(), 60));
            look();
            ::kill(family.main_pid(), SIGCONT);
            return expect_another("dbms", server);
        }
        if (how == kill_t::gateway_then_all) ::kill(gateway, SIGKILL);
        if (how != kill_t::main_alone) ::kill(server, SIGKILL);
        family.kill_main();
        if (how == kill_t::server_then_all) ::kill(gateway, SIGKILL);
        // Those who were not killed notice that the main process has gone.
        EXPECT_TRUE(ends_within(server_end.get(), 60));
        EXPECT_TRUE(ends_within(gateway_end.get(), 60));
        look();
        family.start();
    }

    [[nodiscard]] std::string log_end() const {
        constexpr size_t kShown = 20'000;
        const std::string all = family.log_text();
        return all.substr(all.size() - std::min(all.size(), kShown));
    }
    /// Fails the test unless the files are whole; what `tarmik verify` says of them.
    nlohmann::json verify() {
        const std::string out = family.dir().file("verify");
        std::filesystem::remove(out);
        const platform::ExitStatus status = platform::wait_for_end(
            spawn_into_files({.program = RunningFamily::program("tarmik"),
                              .arguments = {"--output", "json", "verify", family.database_path(),
                                            family.journal_path()}},
                             out, out));
        EXPECT_FALSE(status.by_signal);
        EXPECT_EQ(status.code, 0) << read_file(out);
        const nlohmann::json answer = nlohmann::json::parse(read_file(out), nullptr, false);
        EXPECT_TRUE(answer.is_object() && answer.contains("figures")) << read_file(out);
        if (HasFailure()) return {};
        const nlohmann::json& figures = answer["figures"];
        std::cout << fmt::format(
            "  verified: {} faults, {} objects, {} of them below {} unfinished deletes, {} bytes, "
            "{} transactions to replay\n",
            answer["fault_count"].dump(), figures["objects"]["count"].dump(),
            figures["tree"]["detached_objects"].dump(),
            figures["tree"]["waiting_tombstones"].dump(), figures["database_bytes"].dump(),
            figures["journal"]["transactions_to_replay"].dump());
        return figures;
    }
    /// Stops the family in order, and starts it again as long as deletes are left and go on.
    nlohmann::json stop_when_deletes_are_done() {
        size_t left = ~size_t{0};
        while (true) {
            EXPECT_EQ(family.stop().code, 0);
            nlohmann::json figures = verify();
            if (HasFailure()) return figures;
            const size_t now = figures["tree"]["detached_objects"].get<size_t>() +
                               figures["tree"]["waiting_tombstones"].get<size_t>();
            EXPECT_LT(now, left) << "the deletes don't go on";
            if (now == 0 || HasFailure()) return figures;
            left = now;
            family.start();
            for_all_clients([](TreeClient& client) { client.check(); });
        }
    }

    void print_figures() const {
        std::cout << fmt::format(
            "{} requests acknowledged, {} of them deletes of domains with ten nodes or more; of {} "
            "in doubt {} were done; {} objects: {} domains, {} nodes, {} small objects\n",
            sum(&TreeClient::acknowledged), sum(&TreeClient::large_deletes),
            sum(&TreeClient::doubted), sum(&TreeClient::doubted_and_done),
            sum(&TreeClient::objects), sum(&TreeClient::domains) - clients.size(),
            sum(&TreeClient::nodes), sum(&TreeClient::nodes) + sum(&TreeClient::lines));
    }

    const uint64_t seed = setting("TARMIK_SEED", 1);
    const size_t hundredths = setting("TARMIK_BIG_TREE", 4);
    const TreeSizes sizes{2 * hundredths, 50 * hundredths};
    RunningFamily family{4U << 20};
    cli::ApiClient api{family.url()};
    std::vector<std::unique_ptr<TreeClient>> clients;
};

TEST_F(BigTree, IsWholeAfterEachOfTenKills) {
    support::Rng rng(seed);
    std::vector<size_t> moments;
    // Half of them, or so, while the tree grows.
    for (int n = 0; n < kKills; ++n) moments.push_back(1 + rng.below(3 * sizes.objects()));
    std::sort(moments.begin(), moments.end());
    for (size_t n = 0; n < moments.size() && !HasFailure(); ++n) {
        const auto how = static_cast<kill_t>(n % kKillNames.size());
        const bool in_delete = rng.chance(50);
        const std::string what =
            fmt::format("kill {} after {} requests{}: {}", n, moments[n],
                        in_delete ? ", in a delete" : "", kKillNames[n % kKillNames.size()]);
        SCOPED_TRACE(what);
        std::cout << what << "\n";
        work_and_kill(moments[n], in_delete, how);
    }
    ASSERT_FALSE(HasFailure()) << log_end();

    for_all_clients([](TreeClient& client) { client.build(); });
    for_all_clients([](TreeClient& client) { client.check(); });
    print_figures();
    // Nobody deletes anything after this kill, so what is left of the deletes must go on by itself.
    for (; clients.size() > 1; clients.pop_back()) {
        const Outcome outcome = post(api, "/api/v1/delete", {{"id", clients.back()->top()}});
        ASSERT_TRUE(outcome.ok()) << outcome.text;
    }
    kill_some(kill_t::server_then_all, [&] { (void)verify(); });
    for_all_clients([](TreeClient& client) { client.check(); });
    const nlohmann::json figures = stop_when_deletes_are_done();
    ASSERT_FALSE(HasFailure()) << log_end();
    // Nothing is left of what was deleted, and nothing more stands anywhere than the domains that
    // the test itself has made and what is below them.
    EXPECT_EQ(figures["objects"]["count"], kObjectsOfEmptyDatabase + 2 + sum(&TreeClient::objects));
    EXPECT_EQ(figures["tree"]["root_counters"]["countNodes"], sum(&TreeClient::nodes));
}

}  // namespace
}  // namespace family
