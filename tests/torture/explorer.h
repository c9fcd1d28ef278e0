// Explores the crash states of a workload. One recorded run gives all of them: at every point of
// the record the death of the process and the power cuts that are possible there, and, for some or
// all of these, the same again for every point of the start and the work that follow the crash.
//
// A state has an address: workload, point, number, and the seed of the run. Number 0 is the death
// of the process. Where fewer than kAllBelow power cuts are possible, 1 and up are all of them, and
// then some with a torn sector; otherwise each is drawn by a generator that seed, point and number
// give. So a state found bad can be looked at alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "support/power_cuts.h"
#include "workload.h"

namespace torture {

/// With fewer possible states all are taken.
inline constexpr uint64_t kAllBelow = 256;

/// States with a torn sector beside these.
inline constexpr uint64_t kTornBeside = 16;

struct Effort {
    uint64_t seed = 1;
    /// States drawn at a point where there are too many to take all.
    uint64_t draws = 200;
    /// Of so many states one is taken, besides the death of the process.
    uint64_t share = 1;
    /// Of so many states one is gone into for second crashes; 0: none.
    uint64_t second_every = 0;
    /// States drawn at a point of the second life, also where few are possible.
    uint64_t second_draws = 8;
    /// True when time is up.
    std::function<bool()> over = [] { return false; };
};

struct Tally {
    uint64_t workloads = 0;
    uint64_t points = 0;
    /// First crashes and second ones, each with a start, a verification and further work.
    uint64_t states = 0;
    uint64_t second_states = 0;
    uint64_t faults = 0;
};

struct Address {
    size_t point = 0;
    uint64_t state = 0;
};

class Explorer {
  public:
    /// `report` gets a text for each fault found.
    Explorer(const Workload& workload, const Effort& effort, Tally& tally,
             std::function<void(const std::string&)> report);

    /// All points. Ends early when the effort's time is over, or after a few faults.
    void run();
    /// One state, and one of its second life if `then` is given.
    void run_one(Address first, std::optional<Address> then);

  private:
    struct Place {
        Address first;
        std::optional<Address> then;
    };

    void record();
    [[nodiscard]] bool over() const;
    [[nodiscard]] uint64_t states_at(const support::PowerCuts& cuts, uint64_t draws) const;
    void make_state(const support::PowerCuts& cuts, Address address, uint64_t salt,
                    support::DiskImage& out) const;
    void explore_point(const support::PowerCuts& cuts);
    Check explore_state(const support::PowerCuts& cuts, Address address);
    void explore_second_life(Address first, const Check& life);
    void explore_second_state(const support::PowerCuts& cuts, Address first, Address then,
                              const Check& life);
    void note(const Place& place, const std::string& fault);

    const Workload& workload_;
    Effort effort_;
    Tally& tally_;
    std::function<void(const std::string&)> report_;
    support::SimDisk recorded_;
    Run run_;
    /// The disks of a first and a second crash.
    support::SimDisk disk_;
    support::SimDisk second_disk_;
    support::DiskImage image_;
    support::DiskImage second_image_;
    History::Range first_range_{};
    uint64_t faults_ = 0;
};

}  // namespace torture
