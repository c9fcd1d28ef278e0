// bench_objects: what a request costs in the object layer.

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "common/report.h"
#include "log/log.h"
#include "objects/measure.h"

namespace {

using bench::better_t;

const std::vector<bench::Row> kRows = {
    {"create", "create, not flushed, 1/s"},
    {"update", "update of one property, not flushed, 1/s"},
    {"read", "point read of all properties, 1/s"},
    {"counter", "update that changes a counter at depth 5, not flushed, 1/s"},
    {"mark", "update that changes a mark, not flushed, 1/s"},
    {"durable_update", "update of one property, 1/s"},
    {"durable_counter", "update that changes a counter at depth 5, 1/s"},
    {"durable_mark", "update that changes a mark, 1/s"},
    {"marked_all", "the marked objects of the whole tree, us", better_t::less},
    {"marked_tenth", "the marked objects of a tenth of it, us", better_t::less},
    {"marked_few", "the marked objects of a thousandth of it, us", better_t::less, {}, 1},
    {"delete_request", "delete with the largest subtree, ms", better_t::less, {}, 2},
    {"delete_rate", "its background delete, objects/s"},
    {"delete_usual", "999 of 1000 of its steps take at most, us", better_t::less, {}, 1},
    {"delete_longest", "its longest step, ms", better_t::less, {}, 2},
    {"node_create", "create of a node, not flushed, 1/s"},
    {"check_create", "create of a check, not flushed, 1/s"},
    {"start_all", "start with all the checks, ms", better_t::less, {}, 0},
    {"check_memory", "memory of a check that was read, bytes", better_t::less},
    {"start_memory", "memory after the start, MB", better_t::less},
    {"check_file", "room of a check in the file, bytes", better_t::less},
    {"format_same", "units formatted, 1/s"},
    {"format_converted", "units converted and formatted, 1/s"},
    {"format_duration", "durations formatted, 1/s"},
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures the object layer, and the questions for marked objects beside SQLite");
    bench::Sizes sizes;
    uint32_t rounds = 3;
    std::string folder = "/var/tmp";
    bool quick = false;
    app.add_option("--rounds", rounds, "Rounds, of which the medians are taken")
        ->check(CLI::PositiveNumber);
    app.add_option("--folder", folder, "Where the files lie: on the disk to be measured");
    app.add_flag("--quick", quick, "A short run: small subtrees, one round");
    CLI11_PARSE(app, argc, argv);
    logging::set_all_levels(logging::level_t::warning);
    if (quick) {
        rounds = 1;
        sizes.updates = 2'000;
        sizes.durable_writes = 100;
        sizes.reads = 20'000;
        sizes.questions = 20;
        sizes.subtrees = {10, 100, 1'000};
        sizes.formats = 20'000;
        sizes.real_checks = 2'000;
    }

    bench::Report report({"tarmik", "walk", "SQLite", "SQLite up"});
    fmt::print("Object layer: {} checks under 11110 folders, 1 in 100 marked, {} rounds; {}\n",
               sizes.checks, rounds, bench::machine_line());
    std::vector<bench::Row> rows = kRows;
    for (const uint32_t size : sizes.subtrees)
        rows.push_back({fmt::format("move_{}", size),
                        fmt::format("move of {} objects, ms", size),
                        better_t::less,
                        {},
                        3});
    for (uint32_t round = 1; round <= rounds; ++round) {
        fmt::print(stderr, "round {}\n", round);
        for (const auto& [subject, figures] : bench::measure_tree(folder, sizes))
            report.add(subject, figures);
        report.add("tarmik", bench::measure_subtrees(folder, sizes));
        report.add("tarmik", bench::measure_checks(folder, sizes));
        report.add("tarmik", bench::measure_units(sizes));
    }
    fmt::print("{}{}\n", report.table(rows), bench::machine_line());
    return 0;
}
