// bench_series: what the store of time series does in a second, and what it takes on the disk.

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "common/report.h"
#include "log/log.h"
#include "series/measure.h"

int main(int argc, char** argv) {
    using bench::better_t;
    CLI::App app("Measures the store of time series beside rows in SQLite");
    bench::SeriesSizes sizes;
    uint32_t rounds = 3;
    std::string folder = "/var/tmp";
    bool quick = false;
    app.add_option("--rounds", rounds, "Rounds, of which the medians are taken")
        ->check(CLI::PositiveNumber);
    app.add_option("--folder", folder, "Where the files lie: on the disk to be measured");
    app.add_option("--wide", sizes.wide_series, "Series of the wide runs")
        ->check(CLI::PositiveNumber);
    app.add_flag("--quick", quick, "A short run: fewer records, one round");
    CLI11_PARSE(app, argc, argv);
    logging::set_all_levels(logging::level_t::warning);
    if (quick) {
        rounds = 1;
        sizes = {.series = 100,
                 .records_each = 200,
                 .wide_series = 2'000,
                 .wide_records_each = 2,
                 .awaited = 20,
                 .reads = 200,
                 .created = 200,
                 .checks = 100};
    }

    const std::vector<bench::Row> rows = {
        {"append", fmt::format("appends to {} series, 1/s", sizes.series)},
        {"wide_append", fmt::format("appends to {} series, 1/s", sizes.wide_series)},
        {"wide_memory", "resident afterwards, MB", better_t::less},
        {"awaited", "appends one by one, each durable, 1/s"},
        {"latest", "the newest record, us", better_t::less},
        {"hour", "the last hour's records, us", better_t::less},
        {"create", "series made one by one, 1/s"},
        {"check", "checks created, each with its series, 1/s"},
        {"check_alone", "the same checks without a series, 1/s"},
        {"size", "MB on the disk for a million records", better_t::less, {}, 1},
    };
    bench::Report report({"tarmik", "SQLite"});
    fmt::print("Time series: records by the minute, five levels of consolidation, {} rounds; {}\n",
               rounds, bench::machine_line());
    for (uint32_t round = 1; round <= rounds; ++round) {
        fmt::print(stderr, "round {}\n", round);
        report.add("tarmik",
                   bench::run_in_child([&] { return bench::measure_store(folder, sizes); }));
        report.add("SQLite",
                   bench::run_in_child([&] { return bench::measure_rows(folder, sizes); }));
    }
    fmt::print("{}{}\n", report.table(rows), bench::machine_line());
    return 0;
}
