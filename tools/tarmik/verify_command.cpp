#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tarmik/database_report.h"
#include "tarmik/offline_commands.h"

namespace cli {

namespace {

using nlohmann::ordered_json;

std::string counted(uint64_t count, const char* one, const char* many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

std::string list_text(const TreeFigures::MarkList& list) {
    return fmt::format("{} marked and {} linked", list.marked, list.linked);
}

void print_tree(const TreeFigures& tree, const Output& output) {
    output.print(fmt::format("active {}, inheriting {}, {} kept, {} waiting with {} below\n",
                             list_text(tree.active), list_text(tree.inherits),
                             counted(tree.kept_tombstones, "tombstone", "tombstones"),
                             tree.waiting_tombstones, counted(tree.detached, "object", "objects")));
    for (const std::string& remark : tree.remarks()) output.print(remark + "\n");
}

void print_summary(const DatabaseReport& report, const Output& output) {
    const mdb::FileVerification& found = report.files;
    const mdb::VerifyCounts& counts = found.verification.counts;
    uint64_t entries = 0;
    for (const auto& tree : counts.trees) entries += tree.entries;
    if (found.opened) {
        output.print(fmt::format(
            "{}, {} with {}, {} with {}, {}, {} to replay\n",
            counted(counts.blocks_in_file, "block", "blocks"),
            counted(counts.objects, "object", "objects"),
            counted(counts.records, "record", "records"),
            counted(counts.index_count, "index", "indexes"), counted(entries, "entry", "entries"),
            counted(counts.large_objects, "large object", "large objects"),
            counted(found.journal.transactions, "transaction", "transactions")));
        print_tree(report.tree, output);
    }
    const uint64_t faults = found.verification.fault_count;
    output.print(faults == 0 ? "no faults found\n"
                             : counted(faults, "fault", "faults") + " found\n");
}

void print_json(const DatabaseReport& report, const Output& output) {
    const mdb::FileVerification& found = report.files;
    ordered_json faults = ordered_json::array();
    for (const mdb::Fault& fault : found.verification.faults)
        faults.push_back({{"rule", fault.rule},
                          {"block", fault.block},
                          {"offset", fault.offset},
                          {"text", fault.text}});
    ordered_json all{{"fault_count", found.verification.fault_count},
                     {"faults", std::move(faults)},
                     {"figures", figures_to_json(report)}};
    output.print(all.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n");
}

}  // namespace

exit_code_t verify_command(const OfflineArguments& arguments, const Output& output) {
    const DatabaseReport report = verify_with_progress(arguments, output);
    if (output.json) {
        print_json(report, output);
    } else {
        output.print(report.files.verification.text());
        print_summary(report, output);
    }
    return report.files.verification.whole() ? kDone : kFailed;
}

}  // namespace cli
