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
#include <vector>

#include "explorer.h"
#include "log/log.h"
#include "support/rng.h"
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
constexpr uint64_t kRandomPerRound = 8;

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

/// The workload that is asked for, or all.
std::vector<Workload> chosen_workloads() {
    if (!asked_workload().empty()) return {torture::get_workload(asked_workload())};
    return torture::all_workloads();
}

/// The workloads up to the first with a fault.
Tally explore_all(const std::vector<Workload>& workloads, const Effort& effort) {
    Tally all;
    for (const Workload& workload : workloads) {
        if (effort.over()) break;
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
    const Tally tally = explore_all(chosen_workloads(), effort);
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
    const Workload workload = torture::get_workload(asked_workload());
    Explorer(workload, effort, tally, report)
        .run_one({asked("TORTURE_POINT", 0), asked("TORTURE_STATE", 0)}, then);
}

/// Those of one round of the long run: in an order of its own, so that a run that ends early has
/// been at others than the last one, and with workloads that no other round has.
std::vector<Workload> workloads_of_round(uint64_t seed) {
    std::vector<Workload> workloads = chosen_workloads();
    if (!asked_workload().empty()) return workloads;
    for (uint64_t n = 0; n < kRandomPerRound; ++n)
        workloads.push_back(torture::random_workload(seed * kRandomPerRound + n + 1000));
    support::Rng rng(seed);
    for (size_t n = workloads.size(); n > 1; --n)
        std::swap(workloads[n - 1], workloads[rng.below(n)]);
    return workloads;
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
        const Tally round = explore_all(workloads_of_round(effort.seed), effort);
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
