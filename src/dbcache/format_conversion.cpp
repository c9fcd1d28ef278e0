#include "dbcache/format_conversion.h"

#include <fmt/format.h>
#include <string>
#include <vector>

#include "dbcache/fixed_ids.h"
#include "dbcache/mark_rebuild.h"
#include "dbcache/mark_verify.h"
#include "dbcache/stored_tree.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/index.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbms_conversion"};

constexpr uint32_t kOldestFormat = 6;
/// From this format on views have series.
constexpr uint32_t kFormatWithViewSeries = 12;

/// In place of a series: there is none yet, the first data makes it.
constexpr uint32_t kNoSeries = 0xFFFFFFFF;

void check_format(uint32_t format) {
    if (format < kOldestFormat)
        throw error::EFatal(
            "Database format older than 3.0.3, please upgrade to Tarmik 3.0.3 first.");
    if (format > kDatabaseFormat)
        throw error::EFatal(
            fmt::format("Database format {} is newer than {}, please upgrade Tarmik first.", format,
                        kDatabaseFormat));
}

void build_marks(const Store::Parts& parts) {
    logger.info("Converting database format to 3.2.1, this may take a while...");
    StoredTree tree(parts);
    for (const uint32_t mark : {prop::activeMark, prop::inheritsMark}) build_mark_list(tree, mark);
    logger.info("Conversion done");
    verify_mark_lists(parts);
}

/// The series is durable in another process: what names it here is so too before the next one.
void give_series(const Store::Parts& parts, StoredTree& tree, mdb::block_handle_t view,
                 const CreateSeries& create_series) {
    mdb::Transaction transaction(parts.database.journal());
    const std::optional<uint32_t> made = create_series();
    const mdb::PropertySeries series(prop::tsdbIncident, made.value_or(kNoSeries));
    tree.rewrite(view, {&series});
    transaction.commit(false);
}

void convert_view(const Store::Parts& parts, StoredTree& tree, mdb::block_handle_t place,
                  const CreateSeries& create_series) {
    const mdb::dobj view = tree.load(place);
    const auto name = find_value<mdb::PropertyString>(view, prop::name);
    logger.info("Converting view {}", name.value_or(id_of(view).to_string()));
    if (!find_value<mdb::PropertySeries>(view, prop::tsdbIncident))
        give_series(parts, tree, place, create_series);
}

void convert_views(const Store::Parts& parts, const CreateSeries& create_series) {
    logger.info("Converting database format to 3.4");
    StoredTree tree(parts);
    std::vector<NodeId> domains{kRootId};
    while (!domains.empty()) {
        const NodeId domain = domains.back();
        domains.pop_back();
        for (const mdb::block_handle_t child : tree.children(domain)) {
            const mdb::dobj object = tree.load(child);
            const uint32_t type = nodetype_of(object);
            if (type == nodetype::Domain && id_of(object) != kRootId)
                domains.push_back(id_of(object));
            if (type == nodetype::View) convert_view(parts, tree, child, create_series);
        }
    }
    logger.info("Conversion done");
}

void note_format(const Store::Parts& parts, Sequence& sequence, uint32_t format) {
    sequence.format = format;
    ++sequence.ring_sequence;
    store_sequence(parts, sequence);
}

}  // namespace

void convert_format(const Store::Parts& parts, Sequence& sequence,
                    const CreateSeries& create_series) {
    check_format(sequence.format);
    if (sequence.format < mdb::kFormatWithAlertNotify)
        note_format(parts, sequence, mdb::kFormatWithAlertNotify);
    if (sequence.format < kFormatWithMarks) {
        build_marks(parts);
        note_format(parts, sequence, kFormatWithMarks);
    }
    if (sequence.format < kFormatWithViewSeries) {
        convert_views(parts, create_series);
        note_format(parts, sequence, kFormatWithViewSeries);
    }
}

void prime_mark_lists(const Store::Parts& parts) {
    StoredTree tree(parts);
    recreate_missing_mark_lists(tree);
}

}  // namespace dbcache
