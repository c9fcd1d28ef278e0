// Live requests against a real family: whatever is written, and although the server is killed in
// between, every watcher ends with the picture that a fresh select gives.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <optional>
#include <signal.h>
#include <unistd.h>
#include <vector>

#include "processes.h"
#include "running_family.h"
#include "support/rng.h"
#include "tarmik/live_client.h"
#include "tarmik/mirror.h"

namespace family {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

/// A client that follows a pattern and connects again when it must.
class Watcher {
  public:
    Watcher(std::string url, std::string pattern, bool patches)
        : url_(std::move(url)), pattern_(std::move(pattern)), patches_(patches) {}

    /// Takes what has come.
    void step() {
        if (!client_)
            client_.emplace(
                url_, "/api/v1/subscribe",
                cli::Parameters{{"pattern", pattern_}, {"patches", patches_ ? "1" : "0"}});
        for (cli::StreamItem& item : client_->take()) {
            if (std::holds_alternative<cli::StreamEnd>(item)) {
                client_.reset();
                return;
            }
            const auto& event = std::get<cli::StreamEvent>(item);
            ++counts_[event.name];
            if (event.name == "away") continue;
            ASSERT_NE(event.name, "error") << event.data;
            (void)mirror_.apply(event.name, ordered_json::parse(event.data));
        }
    }

    [[nodiscard]] json picture() const { return mirror_.results(); }
    [[nodiscard]] const std::string& pattern() const { return pattern_; }
    [[nodiscard]] size_t count(const std::string& event) const {
        const auto found = counts_.find(event);
        return found == counts_.end() ? 0 : found->second;
    }

  private:
    std::string url_, pattern_;
    bool patches_;
    std::optional<cli::LiveClient> client_;
    cli::Mirror mirror_;
    std::map<std::string, size_t> counts_;
};

/// Writes at random: domains and nodes come, change, move and go.
class RandomWriter {
  public:
    RandomWriter(cli::Api& api, uint64_t seed) : api_(api), rng_(seed) {}

    void step() {
        const uint64_t dice = rng_.below(100);
        const std::string name = fmt::format("o{}", ++names_);
        if (domains_.size() < 4 || dice < 12)
            create(domains_, "Domain", rng_.below(3) == 0 ? "0.1" : any(domains_, "0.1"), name);
        else if (nodes_.size() < 6 || dice < 35)
            create(nodes_, "Node", any(domains_, "0.1"), name);
        else if (dice < 70)
            change(dice < 60 ? any(nodes_) : any(domains_), {{"label", name}});
        else if (dice < 82)
            change(any(nodes_), {{"parentId", any(domains_)}});
        else if (dice < 86)
            change(any(domains_), {{"parentId", any(domains_)}});
        else
            remove(dice < 97 ? nodes_ : domains_);
    }

  private:
    using Ids = std::vector<std::string>;

    std::string any(const Ids& ids, const std::string& otherwise = {}) {
        return ids.empty() ? otherwise : ids[rng_.below(ids.size())];
    }
    void create(Ids& into, const char* class_name, const std::string& parent,
                const std::string& name) {
        const Outcome made = post(api_, "/api/v1/create",
                                  {{"class", class_name},
                                   {"parent", parent},
                                   {"properties", {{"name", name}, {"label", name}}}});
        if (made.ok()) into.push_back(made.answer->at("id").get<std::string>());
    }
    // What is below a deleted domain is gone too; what is asked of it is refused, and harms nobody.
    void change(const std::string& id, const json& values) {
        (void)post(api_, "/api/v1/update", {{"id", id}, {"properties", values}});
    }
    void remove(Ids& from) {
        const size_t place = rng_.below(from.size());
        (void)post(api_, "/api/v1/delete", {{"id", from[place]}});
        from.erase(from.begin() + static_cast<std::ptrdiff_t>(place));
    }

    cli::Api& api_;
    support::Rng rng_;
    Ids domains_, nodes_;
    size_t names_ = 0;
};

TEST(Watchers, EndWithThePictureOfAFreshSelect) {
    RunningFamily family;
    cli::ApiClient api(family.url());
    std::deque<Watcher> watchers;
    watchers.emplace_back(family.url(), "Domain*[name,label] > Node[name,label]", true);
    watchers.emplace_back(family.url(), "Domain*[name,label] > Node[name,label]", false);
    watchers.emplace_back(family.url(), "Domain*$[label] > Node[label]", true);
    watchers.emplace_back(family.url(), "Domain*$[label] > ( Node[label] : View[name] )", true);
    watchers.emplace_back(family.url(), "Domain$ > Domain[name] > Node[label]", true);
    watchers.emplace_back(family.url(), "Domain > Node[label]{label isubstr \"1\"}", true);
    const auto step_all = [&] {
        for (Watcher& each : watchers) each.step();
    };
    const auto all_agree = [&](const char* when) {
        for (Watcher& each : watchers) {
            const json wanted =
                api.post("/api/v1/select", {{"pattern", each.pattern()}}).at("results");
            EXPECT_TRUE(wait_for([&] {
                step_all();
                return each.picture() == wanted;
            })) << when
                << ": " << each.pattern() << "\nwatched " << each.picture().dump() << "\nselected "
                << wanted.dump();
        }
    };

    const uint64_t seed = 20261123;
    RandomWriter writer(api, seed);
    for (int round = 0; round < 6 && !HasFailure(); ++round) {
        SCOPED_TRACE(fmt::format("seed {} round {}", seed, round));
        for (int i = 0; i < 60; ++i) {
            writer.step();
            step_all();
        }
        all_agree("after writes");
        if (round % 2 == 0) continue;
        const size_t away = watchers.front().count("away");
        ASSERT_EQ(::kill(family.child_pid("dbms"), SIGKILL), 0);
        ASSERT_TRUE(family.wait_healthy()) << family.log_text();
        for (int i = 0; i < 10; ++i) writer.step();
        all_agree("after a kill");
        EXPECT_GT(watchers.front().count("away"), away);
    }
    EXPECT_GT(watchers[0].count("patch"), 100U);
    EXPECT_GT(watchers[0].count("delete"), 10U);
    EXPECT_EQ(watchers[1].count("patch"), 0U);
    EXPECT_GT(watchers[1].count("result"), 100U);

    // The gateway itself is killed: a new one knows nobody, and everybody comes again.
    ASSERT_EQ(::kill(family.child_pid("wapi"), SIGKILL), 0);
    ASSERT_TRUE(family.wait_healthy());
    for (int i = 0; i < 20; ++i) writer.step();
    all_agree("after a kill of the gateway");
    // It stops in order with streams open.
    EXPECT_EQ(family.stop().code, 0) << family.log_text();
}

}  // namespace
}  // namespace family
