// Every call that a workload makes to its disk fails, one in each run, and those after it work
// again, so that a call that is tried once more would seem to have done what it was asked for. The
// request fails and the store goes on right, or the store refuses whatever would write; and in
// both cases what the death of the process leaves, and what a power cut leaves, is whole: all that
// was acknowledged as durable is there, and nothing that was not committed.
#include <cerrno>
#include <cstdlib>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "error/exception.h"
#include "log/log.h"
#include "support/power_cuts.h"
#include "support/rng.h"
#include "support/sim_disk.h"
#include "workload.h"

namespace {

using support::DiskFailure;
using support::DiskImage;
using support::SimDisk;
using torture::History;
using torture::Script;
using torture::Workload;

/// How a call fails. Some manners are left to the long run.
struct Manner {
    const char* name;
    int code;
    bool partial;
    bool lasting;
    bool always;
};
constexpr Manner kManners[] = {
    {"EIO", EIO, false, false, true},
    {"ENOSPC, half done", ENOSPC, true, false, true},
    {"ENOSPC", ENOSPC, false, false, false},
    {"EIO, half done", EIO, true, false, false},
    {"EIO from then on", EIO, false, true, false},
};

/// The calls of a disk, by the names that it gives them.
constexpr std::string_view kCalls[] = {"access", "create", "lock", "mmap", "open",        "remove",
                                       "rename", "resize", "stat", "sync", "sync folder", "write"};
bool all_calls_asked() {
    const char* text = std::getenv("TORTURE_ALL_CALLS");
    return text != nullptr && *text != '\0';
}

/// Power cuts that are looked at after each failure, beside the one that keeps nothing.
constexpr int kCuts = 3;

struct Tally {
    uint64_t failures = 0;
    uint64_t refused = 0;
    uint64_t went_on = 0;
    uint64_t at_start = 0;
    uint64_t states = 0;
    std::map<std::string_view, uint64_t> by_call;
};

class FailingCalls {
  public:
    explicit FailingCalls(const Workload& workload) : workload_(workload) {
        torture::Run run(workload, disk_);
        run.prepare();
        prepared_ = disk_.base();
        start_ = run.history().states().front().model;
    }

    /// Lets the `n`-th call of a name fail; false when the workload makes no so many.
    bool fail(std::string_view name, uint64_t n, const Manner& manner) {
        disk_.load(prepared_);
        disk_.fail({.call = n,
                    .name = name,
                    .code = manner.code,
                    .lasting = manner.lasting,
                    .partial = manner.partial});
        History history(start_);
        Script script(disk_, &disk_, workload_.setup, history);
        if (start_) script.set_model(*start_);
        std::string thrown = "nothing";
        try {
            workload_.work(script);
        } catch (const error::Exception& failure) {
            thrown = failure.text();
        }
        if (!disk_.failed()) {
            EXPECT_EQ(thrown, "nothing") << "without a call that fails";
            return false;
        }
        ++tally.failures;
        ++tally.by_call[name];
        disk_.fail({});
        disk_.set_most_file_bytes(0);
        where_ = fmt::format("workload {}, {} number {} with {}; the store throws: {}",
                             workload_.name, name, n, manner.name, thrown);
        look_at(script, history, n);
        return true;
    }

    Tally tally;

  private:
    void look_at(Script& script, const History& history, uint64_t seed) {
        // A start that fails ends the process.
        const bool started = script.is_ready();
        const bool failed = started && script.database().journal().failed();
        ++(failed ? tally.refused : started ? tally.went_on : tally.at_start);
        if (failed) refuses(script, history);
        const bool goes_on = started && !failed;
        if (goes_on)
            while (script.database().journal().transaction_active()) script.abort();
        look_at_crashes(history, seed);
        if (goes_on) expect_well(torture::check_going_on(script), "the store that goes on");
    }

    /// Whatever would write is refused and doesn't write; what is read is whole.
    void refuses(Script& script, const History& history) {
        mdb::Journal& journal = script.database().journal();
        const uint64_t calls = disk_.calls();
        EXPECT_THROW(journal.transaction_begin(), error::EFatal) << where_;
        EXPECT_THROW(journal.full_checkpoint(), error::Exception) << where_;
        EXPECT_THROW(journal.journal_checkpoint(), error::Exception) << where_;
        EXPECT_THROW(journal.flip(true), error::Exception) << where_;
        EXPECT_THROW(script.database().write_header(script.database().header()), error::Exception)
            << where_;
        if (journal.transaction_active()) {
            EXPECT_THROW(journal.transaction_end(true), error::EFatal) << where_;
        }
        // A large object syncs with its transaction open; whoever opened it takes it back.
        while (journal.transaction_active()) script.abort();
        EXPECT_EQ(disk_.calls(), calls) << "a store that refuses has written, " << where_;
        expect_well(torture::check_readable(script, history, history.after_death()),
                    "the store that can be read");
    }

    void look_at_crashes(const History& history, uint64_t seed) {
        look_at_crash(disk_.seen(), history, history.after_death(), "death of the process");
        const size_t end = disk_.log().size();
        const History::Range range = history.after_power_cut(end, end);
        support::PowerCuts cuts(disk_.base(), disk_.log());
        cuts.go_to(cuts.points() - 1);
        DiskImage image;
        cuts.combination(0, image);
        look_at_crash(image, history, range, "power cut, nothing kept");
        support::Rng rng(seed);
        for (int i = 0; i < kCuts; ++i) {
            cuts.draw(rng, image);
            look_at_crash(image, history, range, fmt::format("power cut {}", i));
        }
    }

    void look_at_crash(const DiskImage& image, const History& history, History::Range range,
                       const std::string& what) {
        ++tally.states;
        crashed_.load(image);
        expect_well(torture::check_after_crash(workload_, crashed_, history, range).fault, what);
    }

    void expect_well(const std::string& fault, const std::string& what) const {
        if (!fault.empty()) ADD_FAILURE() << where_ << "\n" << what << ":\n" << fault;
    }

    const Workload& workload_;
    SimDisk disk_;
    SimDisk crashed_;
    DiskImage prepared_;
    std::optional<torture::Model> start_;
    std::string where_;
};

class FailingCall : public testing::TestWithParam<std::string> {
  protected:
    FailingCall() { logging::set_all_levels(logging::level_t::off); }
};

/// Lets the calls of a name fail, each in all manners of this run; unless `all`, the later ones
/// only here and there.
void sweep(FailingCalls& calls, std::string_view name, bool all) {
    bool struck = true;
    for (uint64_t n = 1; struck && !testing::Test::HasFailure(); n += all ? 1 : 1 + n / 10) {
        struck = false;
        for (const Manner& manner : kManners)
            if (manner.always || all_calls_asked()) struck = calls.fail(name, n, manner) || struck;
    }
}

TEST_P(FailingCall, LosesNothing) {
    const Workload workload = torture::get_workload(GetParam());
    FailingCalls calls(workload);
    for (const std::string_view name : kCalls) sweep(calls, name, true);
    // Reads are many.
    sweep(calls, "read", all_calls_asked());
    std::string by_call;
    for (const auto& [name, count] : calls.tally.by_call)
        by_call += fmt::format(" {} {}", count, name);
    std::cout << fmt::format(
                     "{:14} {} failing calls:{}; {} at the start, {} refused from then on, {} went "
                     "on; {} crash states",
                     GetParam(), calls.tally.failures, by_call, calls.tally.at_start,
                     calls.tally.refused, calls.tally.went_on, calls.tally.states)
              << std::endl;
    EXPECT_GT(calls.tally.failures, 50U);
}

INSTANTIATE_TEST_SUITE_P(All, FailingCall, testing::ValuesIn([] {
                             std::vector<std::string> names;
                             for (const Workload& workload : torture::all_workloads())
                                 names.push_back(workload.name);
                             return names;
                         }()),
                         [](const auto& of) { return of.param; });

}  // namespace
