#include "tarmik/database_report.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "dbcache/accounting_rebuild.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/mark_verify.h"
#include "log/log.h"
#include "mdb/verify_parents.h"
#include "platform/overlay_files.h"
#include "tql/names.h"

namespace cli {

namespace {

using nlohmann::ordered_json;

/// A line that is written over; gone at the end.
class ProgressLine {
  public:
    explicit ProgressLine(const Output& output) : output_(output) {}
    ~ProgressLine() {
        if (!shown_.empty()) output_.remark("\r\x1b[K");
    }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void show(const mdb::VerifyProgress& progress) {
        const uint64_t percent = progress.total == 0 ? 0 : progress.done * 100 / progress.total;
        std::string line = fmt::format("{} {} %", progress.step, percent);
        if (line == shown_) return;
        output_.remark("\r\x1b[K" + line);
        shown_ = std::move(line);
    }

  private:
    const Output& output_;
    std::string shown_;
};

/// Parents that are no objects.
bool is_outside(const NodeId& parent) {
    return parent.is_null() || parent == dbcache::kFinishedTombstones ||
           parent == dbcache::kFreshTombstones;
}

ordered_json journal_to_json(const mdb::JournalState& journal) {
    ordered_json halves = ordered_json::array();
    for (const auto& half : journal.halves) {
        ordered_json one{{"valid", half.valid}};
        if (half.valid) {
            one["serial"] = half.serial;
            one["position"] = half.position;
        }
        one["capacity"] = half.capacity;
        halves.push_back(std::move(one));
    }
    return {{"bytes", journal.length},
            {"halves", std::move(halves)},
            {"current_half", journal.picked},
            {"transactions_to_replay", journal.transactions},
            {"updates_to_replay", journal.updates},
            {"bytes_to_replay", journal.update_bytes},
            {"end", journal.end},
            {"end_reason", journal.end_reason},
            {"free_bytes", journal.free}};
}

ordered_json list_to_json(const TreeFigures::MarkList& list) {
    return {{"exists", list.exists}, {"marked", list.marked}, {"linked", list.linked}};
}

ordered_json tree_to_json(const TreeFigures& tree) {
    ordered_json counters = ordered_json::object();
    for (const auto& [number, count] : tree.root_counters)
        counters[tql::property_name(number)] = count;
    return {{"active_list", list_to_json(tree.active)},
            {"inherits_list", list_to_json(tree.inherits)},
            {"root_counters", std::move(counters)},
            {"kept_tombstones", tree.kept_tombstones},
            {"waiting_tombstones", tree.waiting_tombstones},
            {"detached_objects", tree.detached},
            {"remarks", tree.remarks()}};
}

ordered_json trees_to_json(const mdb::VerifyCounts& counts) {
    ordered_json trees = ordered_json::array();
    for (uint32_t n = 0; n < counts.index_count; ++n) {
        const auto& tree = counts.trees[n];
        trees.push_back({{"index", n},
                         {"name", kIndexNames[n]},
                         {"height", tree.height},
                         {"nodes", tree.nodes},
                         {"leaves", tree.leaves},
                         {"entries", tree.entries}});
    }
    return trees;
}

}  // namespace

DatabaseReport verify_with_all_checks(
    const OfflineArguments& arguments,
    const std::function<void(const mdb::VerifyProgress&)>& progress) {
    platform::OverlayFiles files;
    DatabaseReport report;
    const auto parents = mdb::make_parent_check(is_outside);
    const auto marks = dbcache::make_mark_check();
    const auto counters = dbcache::make_accounting_check();
    const auto census = make_tree_census(report.tree);
    mdb::VerifyOptions options;
    options.most_faults = arguments.most_faults;
    options.large_object_properties = {prop::largeImage};
    options.checks = {parents.get(), marks.get(), counters.get(), census.get()};
    options.progress = progress;
    report.files =
        mdb::verify_files(files, arguments.database_path, arguments.journal_path, options);
    return report;
}

DatabaseReport verify_with_progress(const OfflineArguments& arguments, const Output& output) {
    logging::set_all_levels(logging::level_t::off);
    ProgressLine line(output);
    return verify_with_all_checks(arguments, [&](const mdb::VerifyProgress& progress) {
        if (output.remarks_are_terminal) line.show(progress);
    });
}

ordered_json figures_to_json(const DatabaseReport& report) {
    const mdb::FileVerification& found = report.files;
    const mdb::VerifyCounts& counts = found.verification.counts;
    ordered_json all{{"database_bytes", found.database_bytes}, {"block_size", found.block_size}};
    if (found.opened) {
        ordered_json blocks{{"in_file", counts.blocks_in_file}};
        for (size_t mark = 0; mark < kMarkNames.size(); ++mark)
            if (!kMarkNames[mark].empty())
                blocks[std::string(kMarkNames[mark])] = counts.marks[mark];
        all["blocks"] = std::move(blocks);
        all["objects"] = {{"count", counts.objects},
                          {"records", counts.records},
                          {"bytes", counts.object_bytes},
                          {"free_bytes", counts.placeholder_bytes}};
        all["indexes"] = trees_to_json(counts);
        all["large_objects"] = {{"count", counts.large_objects},
                                {"bytes", counts.large_object_bytes}};
        all["tree"] = tree_to_json(report.tree);
    }
    all["journal"] = journal_to_json(found.journal);
    return all;
}

}  // namespace cli
