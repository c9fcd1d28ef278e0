// bench_store: our store beside its peers on workload W1.

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <iostream>

#include "common/report.h"
#include "log/log.h"
#include "store/driver.h"

namespace {

using bench::better_t;

const std::vector<bench::Row> kRows = {
    {"sync_update", "synchronous update of one object, 1/s", better_t::more, {{"disk", 0.85}}},
    {"sync_create", "synchronous create, six index entries, 1/s", better_t::more, {{"RocksDB", 1}}},
    {"async_update", "asynchronous update, 1/s", better_t::more, {{"LMDB", 1}}},
    {"async_create",
     "asynchronous create, six index entries, 1/s",
     better_t::more,
     {{"SQLite", 2}, {"RocksDB", 1}}},
    {"read", "point read of all properties, 1/s", better_t::more, {{"LMDB", 1}}},
    {"list", "list of 20 children, id and name, 1/s", better_t::more, {{"LMDB", 1}}},
    {"open", "open after a kill, full log, ms", better_t::less, {{"", 50}}, 1},
    {"size", "size of the data file, MiB", better_t::less, {{"SQLite", 1.5}}, 1},
    {"resident", "resident memory, MiB", better_t::less, {{"SQLite", 1.5}}, 1},
};

struct Subject {
    const char* name;
    bench::OpenStore open;
};

const std::vector<Subject> kStores = {{"tarmik", bench::open_tarmik},
                                      {"SQLite", bench::open_sqlite},
                                      {"LMDB", bench::open_lmdb},
                                      {"RocksDB", bench::open_rocksdb}};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures our store beside SQLite (WAL), LMDB and RocksDB");
    bench::Sizes sizes;
    uint32_t rounds = 5;
    std::string folder = "/var/tmp", only;
    bool quick = false;
    app.add_option("--rounds", rounds, "Rounds, of which the medians are taken")
        ->check(CLI::PositiveNumber);
    app.add_option("--objects", sizes.objects, "Objects in the store")
        ->check(CLI::Range(1000, 10'000'000));
    app.add_option("--folder", folder, "Where the files lie: on the disk to be measured");
    app.add_option("--only", only, "Just this store");
    app.add_flag("--quick", quick, "A short run: small store, one round");
    CLI11_PARSE(app, argc, argv);
    logging::set_all_levels(logging::level_t::warning);
    if (quick) {
        rounds = 1;
        sizes = {10'000, 5'000, 300, 20'000, 2'000};
    }

    std::vector<std::string> names;
    for (const Subject& store : kStores)
        if (only.empty() || only == store.name) names.emplace_back(store.name);
    names.emplace_back("disk");
    bench::Report report(names);
    fmt::print("W1: {} objects, {} rounds; {}\n", sizes.objects, rounds, bench::machine_line());
    for (uint32_t round = 1; round <= rounds; ++round) {
        for (const Subject& store : kStores) {
            if (!only.empty() && only != store.name) continue;
            fmt::print(stderr, "round {}: {}\n", round, store.name);
            report.add(store.name, bench::measure_store(store.open, folder, sizes));
        }
        report.add("disk", bench::measure_disk(folder, sizes));
    }
    fmt::print("{}{}\n", report.table(kRows), bench::machine_line());
    return 0;
}
