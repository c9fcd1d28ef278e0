#include "explorer.h"

#include <fmt/format.h>

namespace torture {

namespace {

constexpr uint64_t kMostFaults = 3;

/// One number out of several, so that neighbours have nothing in common.
uint64_t mix(uint64_t a, uint64_t b) {
    uint64_t x = (a + 0x9E3779B97F4A7C15U) ^ (b * 0xBF58476D1CE4E5B9U);
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return x ^ (x >> 31);
}

}  // namespace

Explorer::Explorer(const Workload& workload, const Effort& effort, Tally& tally,
                   std::function<void(const std::string&)> report)
    : workload_(workload),
      effort_(effort),
      tally_(tally),
      report_(std::move(report)),
      run_(workload, recorded_) {
    run_.prepare();
    run_.work();
    ++tally_.workloads;
}

bool Explorer::over() const {
    return faults_ >= kMostFaults || effort_.over();
}

uint64_t Explorer::states_at(const support::PowerCuts& cuts, uint64_t draws) const {
    const uint64_t possible = cuts.combinations(kAllBelow);
    if (possible >= kAllBelow) return 1 + draws;
    return 1 + possible + (possible > 1 ? kTornBeside : 0);
}

void Explorer::make_state(const support::PowerCuts& cuts, Address address, uint64_t salt,
                          support::DiskImage& out) const {
    if (address.state == 0) return cuts.everything(out);
    const uint64_t possible = cuts.combinations(kAllBelow);
    support::Rng rng(mix(mix(effort_.seed, salt), mix(address.point, address.state)));
    if (possible >= kAllBelow) return cuts.draw(rng, out);
    if (address.state <= possible) return cuts.combination(address.state - 1, out);
    if (!cuts.draw_torn(rng, out)) cuts.draw(rng, out);
}

void Explorer::run() {
    support::PowerCuts cuts(recorded_.base(), recorded_.log());
    for (size_t point = 0; point < cuts.points() && !over(); ++point) {
        cuts.go_to(point);
        explore_point(cuts);
    }
}

void Explorer::explore_point(const support::PowerCuts& cuts) {
    ++tally_.points;
    const uint64_t states = states_at(cuts, effort_.draws);
    for (uint64_t state = 0; state < states && !over(); ++state) {
        const Address address{cuts.point(), state};
        const uint64_t lot = mix(effort_.seed, mix(cuts.point(), state));
        if (state != 0 && lot % effort_.share != 0) continue;
        const Check life = explore_state(cuts, address);
        const bool chosen = effort_.second_every != 0 && lot % effort_.second_every == 0;
        if (life.fault.empty() && chosen) explore_second_life(address, life);
    }
}

Check Explorer::explore_state(const support::PowerCuts& cuts, Address address) {
    make_state(cuts, address, 0, image_);
    disk_.load(image_);
    const History& history = run_.history();
    first_range_ = address.state == 0 ? history.after_death(cuts.completed(), cuts.begun())
                                      : history.after_power_cut(cuts.completed(), cuts.begun());
    ++tally_.states;
    Check check = check_after_crash(workload_, disk_, history, first_range_);
    if (!check.fault.empty()) note({address, {}}, check.fault);
    return check;
}

void Explorer::explore_second_life(Address first, const Check& life) {
    support::PowerCuts cuts(disk_.base(), disk_.log());
    for (size_t point = 0; point < cuts.points() && !over(); ++point) {
        cuts.go_to(point);
        const uint64_t states =
            std::min(states_at(cuts, effort_.second_draws), 1 + effort_.second_draws);
        for (uint64_t state = 0; state < states && !over(); ++state)
            explore_second_state(cuts, first, {point, state}, life);
    }
}

void Explorer::explore_second_state(const support::PowerCuts& cuts, Address first, Address then,
                                    const Check& life) {
    make_state(cuts, then, mix(first.point, first.state) + 1, second_image_);
    second_disk_.load(second_image_);
    ++tally_.second_states;
    // Until the start is done all is allowed that the first crash allowed.
    const bool started = cuts.completed() >= life.start_ops;
    const History& history = started ? *life.after : run_.history();
    History::Range range = first_range_;
    if (started)
        range = then.state == 0 ? history.after_death(cuts.completed(), cuts.begun())
                                : history.after_power_cut(cuts.completed(), cuts.begun());
    const Check check = check_after_crash(workload_, second_disk_, history, range);
    if (!check.fault.empty()) note({first, then}, check.fault);
}

void Explorer::run_one(Address first, std::optional<Address> then) {
    support::PowerCuts cuts(recorded_.base(), recorded_.log());
    if (first.point >= cuts.points()) return report_("There is no such point.\n");
    cuts.go_to(first.point);
    const Check life = explore_state(cuts, first);
    if (!then || !life.fault.empty()) return;
    support::PowerCuts second(disk_.base(), disk_.log());
    if (then->point >= second.points()) return report_("There is no such second point.\n");
    second.go_to(then->point);
    explore_second_state(second, first, *then, life);
}

void Explorer::note(const Place& place, const std::string& fault) {
    ++faults_;
    ++tally_.faults;
    std::string address =
        fmt::format("TORTURE_SEED={} TORTURE_WORKLOAD={} TORTURE_POINT={} TORTURE_STATE={}",
                    effort_.seed, workload_.name, place.first.point, place.first.state);
    if (place.then)
        address += fmt::format(" TORTURE_THEN_POINT={} TORTURE_THEN_STATE={}", place.then->point,
                               place.then->state);
    report_(address + "\n" + fault);
}

}  // namespace torture
