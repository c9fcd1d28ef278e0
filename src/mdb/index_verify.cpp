// The check of a whole index tree against the invariants N1 to N8 of index_layout.h.

#include <algorithm>
#include <limits>
#include <optional>
#include <unordered_set>
#include <vector>

#include "mdb/database.h"
#include "mdb/detail/fault_list.h"
#include "mdb/detail/index_tree.h"
#include "mdb/index.h"

namespace mdb {

namespace {

using detail::describe;
using detail::IndexKey;
using detail::LeafView;
using detail::NodeView;

std::string text(IndexKey key) {
    return detail::to_node_id(key).to_string();
}

/// The separators around a child; none at the edge of the tree.
struct Interval {
    std::optional<IndexKey> low;
    std::optional<IndexKey> high;
};

class IndexVerifier {
  public:
    IndexVerifier(Database& database, bool unique) : database_(database), unique_(unique) {}

    std::string run(uint32_t root) {
        check_subtree(root, {}, 0);
        if (expected_right_ && *expected_right_ != 0)
            faults_.add("N6 leaf {} has right link {} and is the last one", previous_leaf_,
                        *expected_right_);
        check_run();
        if (empty_leaves_ > 0 && leaves_ > 1)
            faults_.add("N7 {} of {} leaves have no entries", empty_leaves_, leaves_);
        return faults_.take();
    }

  private:
    void check_subtree(uint32_t block, const Interval& interval, size_t depth) {
        if (faults_.full()) return;
        if (depth > detail::SearchPath::kGreatestDepth || !visited_.insert(block).second) {
            faults_.add("N1 block {} is reached twice", block);
            return;
        }
        if (!database_.store().block_in_file(block)) {
            faults_.add("N1 block {} is not in the file", block);
            return;
        }
        // A copy, since the walk goes on to other blocks before it is done with this one.
        const BlockBuffer copy = database_.cache().private_block(block);
        const std::span<const std::byte> bytes(copy.data(), database_.block_size());
        const mark_t mark = database_.allocator().query_mark(block);
        if (LeafView(bytes).has_magic() && depth > 0) {
            check_mark(block, mark, mark_t::leaf);
            check_leaf(LeafView(bytes), block, interval, depth);
        } else if (NodeView(bytes).has_magic()) {
            check_mark(block, mark, depth == 0 ? mark_t::root_index : mark_t::non_root_index);
            check_node(NodeView(bytes), block, interval, depth);
        } else {
            faults_.add("N1 block {} has magic {:#x}", block, util::load_be32(bytes.data()));
        }
    }

    void check_mark(uint32_t block, mark_t mark, mark_t wanted) {
        if (mark != wanted)
            faults_.add("N1 block {} has mark {}, not {}", block, static_cast<unsigned>(mark),
                        static_cast<unsigned>(wanted));
    }

    void check_node(const NodeView& node, uint32_t block, const Interval& interval, size_t depth) {
        const uint32_t nkeys = node.nkeys();
        if (nkeys > node.capacity()) {
            faults_.add("N2 node {} has nkeys {}", block, nkeys);
            return;
        }
        if (depth == 0 && node.childless()) return;
        for (uint32_t i = 0; i < nkeys; ++i) {
            if (i > 0 && node.key(i) < node.key(i - 1))
                faults_.add("N3 node {} key {}: {} follows {}", block, i, text(node.key(i)),
                            text(node.key(i - 1)));
            check_interval(block, i, node.key(i), interval, false);
        }
        for (uint32_t p = 0; p <= nkeys; ++p) {
            if (node.child(p) == 0) {
                faults_.add("N2 node {} has no child {}", block, p);
                continue;
            }
            check_subtree(
                node.child(p),
                {p == 0 ? interval.low : node.key(p - 1), p == nkeys ? interval.high : node.key(p)},
                depth + 1);
        }
    }

    /// Keys of entries lie below the upper separator in a unique tree; separators themselves, which
    /// may be stale, only not above it.
    void check_interval(uint32_t block, uint32_t i, IndexKey key, const Interval& interval,
                        bool entry) {
        if (interval.low && key < *interval.low)
            faults_.add("N4 block {} key {}: {} is below separator {}", block, i, text(key),
                        text(*interval.low));
        if (interval.high && (key > *interval.high || (unique_ && entry && key == *interval.high)))
            faults_.add("N4 block {} key {}: {} is not below separator {}", block, i, text(key),
                        text(*interval.high));
    }

    void check_leaf(const LeafView& leaf, uint32_t block, const Interval& interval, size_t depth) {
        ++leaves_;
        if (leaf_depth_ && *leaf_depth_ != depth)
            faults_.add("N5 leaf {} is at depth {}, others at {}", block, depth, *leaf_depth_);
        leaf_depth_ = depth;
        if (leaf.left() != previous_leaf_)
            faults_.add("N6 leaf {} has left link {}, its neighbour is {}", block, leaf.left(),
                        previous_leaf_);
        if (expected_right_ && *expected_right_ != block)
            faults_.add("N6 leaf {} has right link {}, its neighbour is {}", previous_leaf_,
                        *expected_right_, block);
        previous_leaf_ = block;
        expected_right_ = leaf.right();
        if (leaf.nkeys() > leaf.capacity()) {
            faults_.add("N2 leaf {} has nkeys {}", block, leaf.nkeys());
            return;
        }
        if (leaf.nkeys() == 0) ++empty_leaves_;
        for (uint32_t i = 0; i < leaf.nkeys(); ++i) {
            check_interval(block, i, leaf.key(i), interval, true);
            check_entry(leaf, block, i);
        }
    }

    void check_entry(const LeafView& leaf, uint32_t block, uint32_t i) {
        const IndexKey key = leaf.key(i);
        if (previous_key_ && (key < *previous_key_ || (unique_ && key == *previous_key_)))
            faults_.add("N3 leaf {} key {}: {} follows {}", block, i, text(key),
                        text(*previous_key_));
        if (!previous_key_ || key != *previous_key_) {
            check_run();
            previous_key_ = key;
        }
        run_.push_back(leaf.value(i));
    }

    /// The values of one run of equal keys must differ.
    void check_run() {
        std::sort(run_.begin(), run_.end());
        const auto twice = std::adjacent_find(run_.begin(), run_.end());
        if (twice != run_.end())
            faults_.add("N8 entry {}->{} stands in the index twice", text(*previous_key_),
                        describe(*twice));
        run_.clear();
    }

    Database& database_;
    bool unique_;
    detail::FaultList faults_;
    std::unordered_set<uint32_t> visited_;
    std::optional<size_t> leaf_depth_;
    uint32_t previous_leaf_ = 0;
    std::optional<uint32_t> expected_right_;
    std::optional<IndexKey> previous_key_;
    std::vector<block_handle_t> run_;
    size_t leaves_ = 0;
    size_t empty_leaves_ = 0;
};

}  // namespace

std::string IndexTable::verify_index(uint32_t n) {
    static_cast<void>(tree(n, "Unknown index given at full-index iteration"));
    return IndexVerifier(database_, n == node_id_index).run(roots_[n]);
}

}  // namespace mdb
