#include "tree_workloads.h"

#include "mdb/index_layout.h"
#include "util/byte_order.h"
#include "workload.h"

namespace torture {

namespace {

/// Of blocks of 1024 bytes.
constexpr uint32_t kLeafEntries = (1024 - mdb::leaf_layout::entries) / mdb::leaf_layout::kEntrySize;
constexpr uint32_t kNodeKeys = (1024 - mdb::node_layout::entries) / mdb::node_layout::kEntrySize;

NodeId number(uint32_t n) {
    return {1, n};
}

void add(Script& script, uint32_t n) {
    script.create(number(n), {.parent = kRoot, .master = number(n), .text = ""});
}

uint32_t keys_of_root(Script& script) {
    const uint32_t root = script.database().header().index_root(mdb::node_id_index);
    return util::load_be32(script.database().cache().cached_block(root) + mdb::node_layout::nkeys);
}

/// What a split leaves behind of a leaf that grows at its end.
constexpr uint32_t kHalfLeaf = (kLeafEntries + 1) / 2;

/// Adds an id between those of the second leaf of a tree of few leaves.
void add_between(Script& script) {
    uint32_t next = 10 * (kHalfLeaf + 2) + 1;
    while (script.model().contains(number(next))) ++next;
    add(script, next);
}

/// Adds ascending ids until the root is full, and takes most of them away again as soon as their
/// leaf has been left behind. Returns the next id.
uint32_t fill_root(Script& script) {
    script.format();
    script.open();
    constexpr uint32_t kLeft = kHalfLeaf;
    uint32_t next = 1;
    while (keys_of_root(script) < kNodeKeys) {
        add(script, next++);
        if (next % kLeft != 0 || next < 3 * kLeft) continue;
        const uint32_t old = next - 3 * kLeft;
        for (uint32_t n = 1; n < kLeft; ++n)
            if (script.model().contains(number(old + n))) script.remove(number(old + n));
    }
    return next;
}

}  // namespace

void tree_before_root_split(Script& script) {
    uint32_t next = fill_root(script);
    // The last leaf has half of its entries.
    for (uint32_t n = kLeafEntries / 2 - 1; n > 0; --n) add(script, next++);
}

void splits(Script& script) {
    script.open();
    uint32_t next = script.model().rbegin()->first.second + 1;
    for (int n = 0; n < 4; ++n) {
        script.begin();
        add(script, next++);
        script.commit(n % 2 == 0);
    }
    script.begin();
    script.begin();
    for (int n = 0; n < 2; ++n) script.remove(script.model().rbegin()->first);
    script.abort();
    add(script, next++);
    script.commit(false);
    for (int n = 0; n < 4; ++n) script.remove(script.model().rbegin()->first);
}

void tree_of_few_leaves(Script& script) {
    script.format();
    script.open();
    for (uint32_t n = 1; n <= 100; ++n) add(script, 10 * n);
    // Leaves of ascending keys are left half full: the second one is filled but for two entries.
    for (uint32_t entries = kHalfLeaf; entries + 2 < kLeafEntries; ++entries) add_between(script);
}

void middle_splits(Script& script) {
    script.open();
    for (int n = 0; n < 4; ++n) {
        script.begin();
        add_between(script);
        script.commit(n % 2 == 0);
    }
    // The first entry of the second leaf, as far as it hasn't gone on to the new one.
    const NodeId first = number(10 * kHalfLeaf);
    script.begin();
    script.remove(first);
    script.abort();
    script.remove(first);
}

void tree_of_three_levels(Script& script) {
    tree_before_root_split(script);
    uint32_t next = script.model().rbegin()->first.second + 1;
    for (int n = 0; n < 3; ++n) add(script, next++);
    // The last leaves hold many yet.
    std::vector<NodeId> ids;
    for (const auto& [id, values] : script.model()) ids.push_back(id);
    for (size_t n = ids.size() - 100; n < ids.size(); ++n)
        if (n % 16 != 0) script.remove(ids[n]);
}

void emptying(Script& script) {
    script.open();
    for (int round = 0; script.model().size() > 1; ++round) {
        script.begin();
        for (int n = 0; n < 2 && script.model().size() > 1; ++n) {
            // From both ends and out of the middle.
            auto victim = std::next(script.model().begin());
            if (round % 3 == 1) victim = std::prev(script.model().end());
            if (round % 3 == 2)
                victim =
                    std::next(victim, static_cast<std::ptrdiff_t>((script.model().size() - 1) / 2));
            script.remove(victim->first);
        }
        if (round % 7 == 6) {
            script.abort();
            continue;
        }
        script.commit(round % 4 != 0);
    }
}

}  // namespace torture
