// Crash states of all workloads: a bounded share of them by default, and as many as time allows in
// the long run (`make torture`). What can be asked for by the environment is told in
// docs/storage-proof.md.
#include <chrono>
#include <cstdlib>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <iostream>
#include <string>

#include "explorer.h"
#include "log/log.h"
#include "workload.h"

namespace {

using torture::Effort;
using torture::Explorer;
using torture::Tally;
using torture::Workload;

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
                     "{:14} seed {}: {} points, {} crash states, {} with a second crash, {} faults",
                     name, seed, tally.points, tally.states, tally.second_states, tally.faults)
              << std::endl;
}

class Torture : public testing::Test {
  protected:
    Torture() { logging::set_all_levels(logging::level_t::off); }
};

class Workloads : public Torture, public testing::WithParamInterface<std::string> {};

// The share that every run of the tests explores.
TEST_P(Workloads, SurviveEveryCrash) {
    if (!asked_workload().empty()) GTEST_SKIP() << "one state is asked for";
    Effort effort;
    effort.seed = asked("TORTURE_SEED", 1);
    effort.draws = asked("TORTURE_DRAWS", 200);
    effort.second_every = asked("TORTURE_SECOND_EVERY", 400);
    Tally tally;
    Explorer(torture::get_workload(GetParam()), effort, tally, report).run();
    print(GetParam(), tally, effort.seed);
    EXPECT_GT(tally.states, tally.points);
}

INSTANTIATE_TEST_SUITE_P(All, Workloads, testing::ValuesIn([] {
                             std::vector<std::string> names;
                             for (const Workload& workload : torture::all_workloads())
                                 names.push_back(workload.name);
                             return names;
                         }()),
                         [](const auto& of) { return of.param; });

// One state, as a report of a fault names it.
TEST_F(Torture, OneState) {
    if (asked_workload().empty()) GTEST_SKIP() << "no state is asked for";
    Effort effort;
    effort.seed = asked("TORTURE_SEED", 1);
    Tally tally;
    std::optional<torture::Address> then;
    if (std::getenv("TORTURE_THEN_POINT") != nullptr)
        then = {asked("TORTURE_THEN_POINT", 0), asked("TORTURE_THEN_STATE", 0)};
    Explorer(torture::get_workload(asked_workload()), effort, tally, report)
        .run_one({asked("TORTURE_POINT", 0), asked("TORTURE_STATE", 0)}, then);
}

}  // namespace
