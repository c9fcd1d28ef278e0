#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "mdb/index_layout.h"
#include "tarmik/database_report.h"
#include "tarmik/offline_commands.h"
#include "tql/names.h"

namespace cli {

namespace {

uint64_t percent(uint64_t part, uint64_t whole) {
    return whole == 0 ? 0 : part * 100 / whole;
}

std::string database_text(const mdb::FileVerification& found) {
    const mdb::VerifyCounts& counts = found.verification.counts;
    std::string text = fmt::format("database       {} bytes, {} blocks of {} bytes\n",
                                   found.database_bytes, counts.blocks_in_file, found.block_size);
    for (size_t mark = 0; mark < kMarkNames.size(); ++mark)
        if (!kMarkNames[mark].empty())
            text += fmt::format("  {:<15}{}\n", kMarkNames[mark], counts.marks[mark]);
    text += fmt::format("objects        {} with {} records\n", counts.objects, counts.records);
    text +=
        fmt::format("  blocks       {} % full: {} bytes in objects, {} bytes free\n",
                    percent(counts.object_bytes, counts.object_bytes + counts.placeholder_bytes),
                    counts.object_bytes, counts.placeholder_bytes);
    for (uint32_t n = 0; n < counts.index_count; ++n) {
        const auto& tree = counts.trees[n];
        const uint64_t capacity = tree.leaves * mdb::leaf_capacity(found.block_size);
        text += fmt::format(
            "index {}        {}: {} entries, height {}, {} nodes, {} leaves, {} % full\n", n,
            kIndexNames[n], tree.entries, tree.height, tree.nodes, tree.leaves,
            percent(tree.entries, capacity));
    }
    text += fmt::format("large objects  {} with {} bytes\n", counts.large_objects,
                        counts.large_object_bytes);
    return text;
}

std::string list_text(const char* name, const TreeFigures::MarkList& list) {
    return fmt::format("  {:<13}{} marked, {} linked{}\n", name, list.marked, list.linked,
                       list.is_missing() ? ", no list" : "");
}

std::string tree_text(const TreeFigures& tree) {
    std::string text =
        "tree\n" + list_text("active", tree.active) + list_text("inheriting", tree.inherits) +
        fmt::format("  {:<13}{} kept, {} waiting with {} objects below them\n", "tombstones",
                    tree.kept_tombstones, tree.waiting_tombstones, tree.detached);
    text += tree.root_counters.empty() ? "counters       none\n" : "counters       of the root\n";
    for (const auto& [number, count] : tree.root_counters)
        text += fmt::format("  {:<22} {}\n", tql::property_name(number), count);
    return text;
}

std::string journal_text(const mdb::JournalState& journal) {
    std::string text = fmt::format("journal        {} bytes\n", journal.length);
    for (size_t i = 0; i < journal.halves.size(); ++i) {
        const auto& half = journal.halves[i];
        const char* current = journal.picked == static_cast<int>(i) ? ", current" : "";
        text += half.valid ? fmt::format("  half {}       serial {} from {}, room for {} bytes{}\n",
                                         i + 1, half.serial, half.position, half.capacity, current)
                           : fmt::format("  half {}       never used\n", i + 1);
    }
    text += fmt::format("  to replay    {} transactions with {} updates of {} bytes\n",
                        journal.transactions, journal.updates, journal.update_bytes);
    if (!journal.end_reason.empty())
        text += fmt::format("  ends at      {} ({}), {} bytes free\n", journal.end,
                            journal.end_reason, journal.free);
    return text;
}

}  // namespace

exit_code_t stat_command(const OfflineArguments& arguments, const Output& output) {
    const DatabaseReport report = verify_with_progress(arguments, output);
    const mdb::FileVerification& found = report.files;
    if (output.json)
        output.print(figures_to_json(report).dump(2) + "\n");
    else
        output.print((found.opened ? database_text(found) + tree_text(report.tree) : "") +
                     journal_text(found.journal));
    if (!found.opened)
        output.remark(
            fmt::format("tarmik: the database cannot be opened: {}", found.verification.text()));
    else if (!found.verification.whole())
        output.remark(fmt::format("tarmik: {} faults found, see tarmik verify\n",
                                  found.verification.fault_count));
    return found.opened ? kDone : kFailed;
}

}  // namespace cli
