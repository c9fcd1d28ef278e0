// bench_query: what a question to the tree costs, from the request to the bytes of the answer.

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "common/report.h"
#include "log/log.h"
#include "query/patches.h"
#include "query/selects.h"

int main(int argc, char** argv) {
    CLI::App app("Measures selects through the whole engine, beside the same questions in SQLite");
    bench::SelectSizes sizes;
    bench::PatchSizes patch_sizes;
    std::string folder = "/var/tmp";
    bool quick = false;
    app.add_option("--rounds", sizes.rounds, "Rounds, in which the subjects take turns")
        ->check(CLI::PositiveNumber);
    app.add_option("--objects", sizes.objects, "Objects to find per question and round")
        ->check(CLI::PositiveNumber);
    app.add_option("--question", sizes.only, "Ask this one alone: id, path, site, region, ...");
    app.add_option("--folder", folder, "Where the files lie: on the disk to be measured");
    app.add_flag("--quick", quick, "A short run: a tenth of the tree, one round");
    CLI11_PARSE(app, argc, argv);
    logging::set_all_levels(logging::level_t::warning);
    if (quick) {
        sizes.small_tree = true;
        sizes.rounds = 1;
        sizes.objects = 20'000;
        patch_sizes = {.small_tree = true, .writes = 500, .patches = 10'000, .watched = 1'000};
    }

    bench::Report report({"tarmik", "SQLite"});
    fmt::print("Queries: six properties each; rates by processor time, the rest by the clock; {}\n",
               bench::machine_line());
    for (const auto& [subject, figures] : bench::measure_selects(folder, sizes))
        report.add(subject, figures);
    std::vector<bench::Row> rows = bench::select_rows();
    if (sizes.only.empty() || sizes.only == "patches") {
        report.add("tarmik", bench::measure_patches(folder, patch_sizes));
        for (const bench::Row& row : bench::patch_rows()) rows.push_back(row);
    }
    fmt::print("{}{}\n", report.table(rows), bench::machine_line());
    return 0;
}
