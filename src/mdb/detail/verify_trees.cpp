// The check of a whole index tree against N1 to N8 of index_layout.h, and of what it holds against
// the objects.
#include <algorithm>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "mdb/detail/index_block.h"
#include "mdb/detail/index_tree.h"
#include "mdb/detail/search_path.h"
#include "mdb/detail/verify_context.h"

namespace mdb::detail {

namespace {

std::string key_text(IndexKey key) {
    return to_node_id(key).to_string();
}

/// The separators around a child; none at the edge of the tree.
struct Interval {
    std::optional<IndexKey> low;
    std::optional<IndexKey> high;
};

/// An entry of the index and where it stands.
struct TreeEntry {
    IndexKey key;
    block_handle_t handle;
    uint32_t leaf;
    uint32_t offset;
};

uint32_t entry_offset(const LeafView&, uint32_t i) {
    return leaf_layout::entries + leaf_layout::kEntrySize * i;
}
uint32_t entry_offset(const NodeView&, uint32_t i) {
    return node_layout::entries + node_layout::kEntrySize * i;
}
uint32_t child_offset(uint32_t p) {
    return p == 0 ? node_layout::ptr0
                  : node_layout::entries + node_layout::kEntrySize * (p - 1) + node_layout::rptr;
}

class TreeWalk {
  public:
    TreeWalk(VerifyContext& context, uint32_t n)
        : context_(context),
          number_(n),
          unique_(n == node_id_index),
          counts_(context.counts.trees[n]) {}

    void run() {
        const uint32_t root = context_.database.header().index_root(number_);
        // The start makes a root that is still empty; it may lie where the file has yet to grow.
        if (!context_.known(root) || context_.mark(root) == mark_t::empty) {
            unfinished_ = number_ >= kRequiredIndexes;
            return;
        }
        check_subtree(root, {}, 0, {0, 0});
        if (expected_right_ && *expected_right_ != 0)
            context_.fault("N6", previous_leaf_, leaf_layout::right,
                           "leaf has right link {} and is the last one", *expected_right_);
        if (first_empty_leaf_ && counts_.leaves > 1)
            context_.fault("N7", *first_empty_leaf_, leaf_layout::nkeys,
                           "leaf has no entries and is not the only one");
    }
    [[nodiscard]] std::vector<TreeEntry>& entries() { return entries_; }
    /// False: the walk has ended before the end of the tree.
    [[nodiscard]] bool complete() const { return complete_; }
    /// The index is still to be made, or to be finished (N9), by the next start; till then nobody
    /// reads it.
    [[nodiscard]] bool unfinished() const { return unfinished_; }

  private:
    /// `from` is where the block's number stands.
    void check_subtree(uint32_t block, const Interval& interval, size_t depth,
                       block_handle_t from) {
        if (context_.report.full()) {
            complete_ = false;
            return;
        }
        if (!claim(block, depth, from)) return;
        const std::span<const std::byte> cached = context_.read(block);
        if (cached.empty()) return;
        // A copy, since the walk goes on to other blocks before it is done with this one.
        const BlockBuffer copy = context_.database.pool().acquire();
        std::copy(cached.begin(), cached.end(), copy.data());
        const std::span<const std::byte> bytes(copy.data(), cached.size());
        if (LeafView(bytes).has_magic() && depth > 0) {
            check_mark(block, mark_t::leaf);
            check_leaf(LeafView(bytes), block, interval, depth);
        } else if (NodeView(bytes).has_magic()) {
            check_mark(block, depth == 0 ? mark_t::root_index : mark_t::non_root_index);
            check_node(NodeView(bytes), block, interval, depth);
        } else {
            context_.fault("N1", block, 0, "block has magic {:#x}", util::load_be32(bytes.data()));
        }
    }

    bool claim(uint32_t block, size_t depth, block_handle_t from) {
        if (!context_.known(block)) {
            context_.fault("N1", from.block, from.offset, "child {} is not in the file", block);
            return false;
        }
        if (const uint8_t owner = context_.owner(block); owner != owner_none) {
            if (owner == owner_tree + number_)
                context_.fault("N1", block, 0, "block is reached twice, the second time from {}",
                               describe(from));
            else
                context_.fault("N1", block, 0, "block is reached from {} but belongs to {} already",
                               describe(from), owner_text(owner));
            return false;
        }
        context_.set_owner(block, static_cast<uint8_t>(owner_tree + number_));
        if (depth > SearchPath::kGreatestDepth) {
            context_.fault("N1", block, 0, "block lies {} levels below the root", depth);
            return false;
        }
        const auto& marks = context_.counts.marks;
        context_.progress("indexes", ++context_.index_blocks_seen,
                          marks[static_cast<size_t>(mark_t::root_index)] +
                              marks[static_cast<size_t>(mark_t::non_root_index)] +
                              marks[static_cast<size_t>(mark_t::leaf)]);
        return true;
    }

    static std::string owner_text(uint8_t owner) {
        if (owner >= owner_tree) return fmt::format("index {}", owner - owner_tree);
        return owner == owner_header ? "the header"
               : owner == owner_map  ? "the map"
                                     : "the journal";
    }

    void check_mark(uint32_t block, mark_t wanted) {
        if (const mark_t mark = context_.mark(block); mark != wanted)
            context_.fault("N1", block, 0, "block has mark {}, not {}", static_cast<unsigned>(mark),
                           static_cast<unsigned>(wanted));
    }

    void check_node(const NodeView& node, uint32_t block, const Interval& interval, size_t depth) {
        ++counts_.nodes;
        counts_.height = std::max(counts_.height, static_cast<uint32_t>(depth) + 1);
        const uint32_t nkeys = node.nkeys();
        if (nkeys > node.capacity()) {
            context_.fault("N2", block, node_layout::nkeys, "node has nkeys {}", nkeys);
            return;
        }
        if (depth == 0) unfinished_ = node.being_built();
        if (depth == 0 && node.childless()) return;
        for (uint32_t i = 0; i < nkeys; ++i) {
            if (i > 0 && node.key(i) < node.key(i - 1))
                context_.fault("N3", block, entry_offset(node, i), "node key {}: {} follows {}", i,
                               key_text(node.key(i)), key_text(node.key(i - 1)));
            check_interval(block, entry_offset(node, i), node.key(i), interval, false);
        }
        for (uint32_t p = 0; p <= nkeys; ++p) {
            if (node.child(p) == 0) {
                context_.fault("N2", block, child_offset(p), "node has no child {}", p);
                continue;
            }
            check_subtree(
                node.child(p),
                {p == 0 ? interval.low : node.key(p - 1), p == nkeys ? interval.high : node.key(p)},
                depth + 1, {block, child_offset(p)});
        }
    }

    /// Keys of entries lie below the upper separator in a unique tree; separators themselves, which
    /// may be stale, only not above it.
    void check_interval(uint32_t block, uint32_t offset, IndexKey key, const Interval& interval,
                        bool entry) {
        if (interval.low && key < *interval.low)
            context_.fault("N4", block, offset, "key {} is below separator {}", key_text(key),
                           key_text(*interval.low));
        if (interval.high && (key > *interval.high || (unique_ && entry && key == *interval.high)))
            context_.fault("N4", block, offset, "key {} is not below separator {}", key_text(key),
                           key_text(*interval.high));
    }

    void check_leaf(const LeafView& leaf, uint32_t block, const Interval& interval, size_t depth) {
        ++counts_.leaves;
        counts_.height = std::max(counts_.height, static_cast<uint32_t>(depth) + 1);
        if (leaf_depth_ && *leaf_depth_ != depth)
            context_.fault("N5", block, 0, "leaf is at depth {}, others at {}", depth,
                           *leaf_depth_);
        leaf_depth_ = depth;
        check_leaf_links(leaf, block);
        if (leaf.nkeys() > leaf.capacity()) {
            context_.fault("N2", block, leaf_layout::nkeys, "leaf has nkeys {}", leaf.nkeys());
            return;
        }
        if (leaf.nkeys() == 0 && !first_empty_leaf_) first_empty_leaf_ = block;
        counts_.entries += leaf.nkeys();
        for (uint32_t i = 0; i < leaf.nkeys(); ++i) {
            const uint32_t offset = entry_offset(leaf, i);
            const IndexKey key = leaf.key(i);
            check_interval(block, offset, key, interval, true);
            if (previous_key_ && (key < *previous_key_ || (unique_ && key == *previous_key_)))
                context_.fault("N3", block, offset, "leaf key {}: {} follows {}", i, key_text(key),
                               key_text(*previous_key_));
            previous_key_ = key;
            entries_.push_back({key, leaf.value(i), block, offset});
        }
    }

    void check_leaf_links(const LeafView& leaf, uint32_t block) {
        if (leaf.left() != previous_leaf_)
            context_.fault("N6", block, leaf_layout::left,
                           "leaf has left link {}, its neighbour is {}", leaf.left(),
                           previous_leaf_);
        if (expected_right_ && *expected_right_ != block)
            context_.fault("N6", previous_leaf_, leaf_layout::right,
                           "leaf has right link {}, its neighbour is {}", *expected_right_, block);
        previous_leaf_ = block;
        expected_right_ = leaf.right();
    }

    VerifyContext& context_;
    uint32_t number_;
    bool unique_;
    VerifyCounts::Tree& counts_;
    std::optional<size_t> leaf_depth_;
    uint32_t previous_leaf_ = 0;
    std::optional<uint32_t> expected_right_;
    std::optional<uint32_t> first_empty_leaf_;
    std::optional<IndexKey> previous_key_;
    std::vector<TreeEntry> entries_;
    bool complete_ = true;
    bool unfinished_ = false;
};

/// Equal entries of a sorted list stand side by side.
void check_doubles(VerifyContext& context, const std::vector<TreeEntry>& entries) {
    for (size_t i = 1; i < entries.size(); ++i)
        if (entries[i].key == entries[i - 1].key && entries[i].handle == entries[i - 1].handle)
            context.fault("N8", entries[i].leaf, entries[i].offset,
                          "entry {}->{} stands in the index twice", key_text(entries[i].key),
                          describe(entries[i].handle));
}

/// The entries of index `n` and the keys of the objects must be the same; both are sorted.
void compare(VerifyContext& context, uint32_t n, const std::vector<TreeEntry>& entries,
             const std::vector<WantedEntry>& wanted) {
    const auto order = [](const auto& entry) { return std::tie(entry.key, entry.handle); };
    auto entry = entries.begin();
    auto want = wanted.begin();
    while ((entry != entries.end() || want != wanted.end()) && !context.report.full()) {
        if (want == wanted.end() || (entry != entries.end() && order(*entry) < order(*want))) {
            // N8 has named an entry that stands twice.
            const bool twice =
                entry != entries.begin() && order(*entry) == order(*std::prev(entry));
            if (!twice)
                context.fault("O6", entry->leaf, entry->offset,
                              "entry {}->{} of index {} has no object", key_text(entry->key),
                              describe(entry->handle), n);
            ++entry;
        } else if (entry == entries.end() || order(*want) < order(*entry)) {
            context.fault(n == node_id_index ? "O5" : "O6", want->handle.block, want->handle.offset,
                          "object has key {} and no entry in index {}", key_text(want->key), n);
            ++want;
        } else {
            ++entry;
            ++want;
        }
    }
}

}  // namespace

void verify_tree(VerifyContext& context, uint32_t n, std::vector<WantedEntry>* wanted) {
    TreeWalk walk(context, n);
    walk.run();
    std::vector<TreeEntry>& entries = walk.entries();
    const auto by_key_and_handle = [](const auto& a, const auto& b) {
        return std::tie(a.key, a.handle) < std::tie(b.key, b.handle);
    };
    std::sort(entries.begin(), entries.end(), by_key_and_handle);
    check_doubles(context, entries);
    if (wanted == nullptr || !walk.complete() || walk.unfinished()) return;
    std::sort(wanted->begin(), wanted->end(), by_key_and_handle);
    compare(context, n, entries, *wanted);
}

}  // namespace mdb::detail
