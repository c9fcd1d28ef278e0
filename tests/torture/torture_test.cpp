// Crash states of all workloads: a bounded share of them by default, and as many as time allows in
// the long run (`make torture`). What can be asked for by the environment is told in
// docs/storage-proof.md.
#include <chrono>
#include <cstdlib>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <iostream>
#include <optional>
#include <string>

#include "explorer.h"
#include "log/log.h"
#include "workload.h"

namespace {

using torture::Effort;
using torture::Explorer;
using torture::Tally;
using torture::Workload;

/// What every run of the tests explores. Instrumented code is some ten times slower.
#if defined(__SANITIZE_ADDRESS__)
constexpr uint64_t kShare = 20;
constexpr uint64_t kFewestStates = 5'000;
#else
constexpr uint64_t kShare = 1;
constexpr uint64_t kFewestStates = 100'000;
#endif
constexpr uint64_t kSecondEvery = 1500;

uint64_t asked(const char* name, uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr || *text == '\0' ? otherwise : std::strtoull(text, nullptr, 10);
}

std::string asked_workload() {
    const char* text = std::getenv("TORTURE_WORKLOAD");
    return text == nullptr ? "" : text;
}

void report(const std::string& fault) {
    ADD_FAILURE() << fault;
}

void print(const std::string& name, const Tally& tally, uint64_t seed) {
    std::cout << fmt::format(
                     "{:26} seed {}: {} points, {} crash states, {} of second crashes, {} "
                     "faults",
                     name, seed, tally.points, tally.states, tally.second_states, tally.faults)
              << std::endl;
}

/// All workloads up to the first with a fault, or the one that is asked for.
Tally explore_all(const Effort& effort) {
    Tally all;
    for (const Workload& workload : torture::all_workloads()) {
        if (!asked_workload().empty() && workload.name != asked_workload()) continue;
        Tally tally;
        Explorer(workload, effort, tally, report).run();
        print(workload.name, tally, effort.seed);
        all.points += tally.points;
        all.states += tally.states;
        all.second_states += tally.second_states;
        all.faults += tally.faults;
        if (all.faults > 0) break;
    }
    print("all", all, effort.seed);
    return all;
}

class Torture : public testing::Test {
  protected:
    Torture() { logging::set_all_levels(logging::level_t::off); }
};

TEST_F(Torture, WorkloadsSurviveEveryCrash) {
    Effort effort;
    effort.seed = asked("TORTURE_SEED", 1);
    effort.draws = asked("TORTURE_DRAWS", effort.draws);
    effort.share = asked("TORTURE_SHARE", kShare);
    effort.second_every = asked("TORTURE_SECOND_EVERY", kSecondEvery * kShare);
    const Tally tally = explore_all(effort);
    if (asked_workload().empty() && effort.share == kShare) {
        EXPECT_GE(tally.states + tally.second_states, kFewestStates);
    }
}

// One state, as the report of a fault names it.
TEST_F(Torture, OneState) {
    if (std::getenv("TORTURE_POINT") == nullptr) GTEST_SKIP() << "no state is asked for";
    Effort effort;
    effort.seed = asked("TORTURE_SEED", 1);
    Tally tally;
    std::optional<torture::Address> then;
    if (std::getenv("TORTURE_THEN_POINT") != nullptr)
        then = {asked("TORTURE_THEN_POINT", 0), asked("TORTURE_THEN_STATE", 0)};
    Explorer(torture::get_workload(asked_workload()), effort, tally, report)
        .run_one({asked("TORTURE_POINT", 0), asked("TORTURE_STATE", 0)}, then);
}

// Rounds over all workloads, each with a seed of its own, until the time is over.
TEST_F(Torture, LongRun) {
    const uint64_t minutes = asked("TORTURE_MINUTES", 0);
    if (minutes == 0) GTEST_SKIP() << "no long run is asked for";
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(minutes);
    Effort effort;
    effort.over = [end] { return std::chrono::steady_clock::now() >= end; };
    effort.draws = asked("TORTURE_DRAWS", 400);
    effort.second_every = asked("TORTURE_SECOND_EVERY", 50);
    effort.second_draws = 20;
    Tally all;
    for (effort.seed = asked("TORTURE_SEED", 1); !effort.over() && all.faults == 0; ++effort.seed) {
        const Tally round = explore_all(effort);
        all.points += round.points;
        all.states += round.states;
        all.second_states += round.second_states;
        all.faults += round.faults;
    }
    std::cout << fmt::format("{} crash states, {} of second crashes, {} faults, seeds {} to {}",
                             all.states, all.second_states, all.faults, asked("TORTURE_SEED", 1),
                             effort.seed - 1)
              << std::endl;
}

}  // namespace
