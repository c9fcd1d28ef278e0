// One object of a select's answer, in memory, with what matched below it.
//
// A tree of these is built while the engine walks, and is written to the asker's stream from here
// (answers.h). The same object can be met on several branches of a pattern; its nodes are merged
// into one.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "queues/encoded_values.h"
#include "tql/id.h"
#include "tql/origin.h"
#include "tql/pattern.h"
#include "tql/property.h"
#include "tql/version.h"

namespace tqlengine {

class TqlObjectHandler;
struct ResultNode;
struct ResultNodeDelete;
struct SelectStatistics;

/// Memory of result nodes and their values, which come and go by the score with every select. The
/// nodes' memory is free again as each goes, that of the values when all nodes have gone. Keeps
/// some of it for the next select; must outlive the nodes made from it.
class ResultNodePool {
  public:
    ResultNodePool() = default;
    ResultNodePool(const ResultNodePool&) = delete;
    ResultNodePool& operator=(const ResultNodePool&) = delete;
    ~ResultNodePool();

    /// A node with class, id, version, flags and origin of `handler`.
    std::unique_ptr<ResultNode, ResultNodeDelete> make(TqlObjectHandler& handler, bool visible);
    /// The same where the caller knows the origin.
    std::unique_ptr<ResultNode, ResultNodeDelete> make(const TqlObjectHandler& handler,
                                                       const tql::origin_t& origin, bool visible);

    /// Gives `node` the values of `handler` that `step` wants, beside those that it has; the new
    /// ones win. Throws errors::tql.
    void encode(ResultNode& node, TqlObjectHandler& handler, const tql::pattern_t& step);
    /// The same for values that are at hand.
    void encode(ResultNode& node, const tql::property_map_t& values);

    /// The same for values that lie in this pool's memory.
    void take_values(ResultNode& node, const queues::EncodedValues& values);

    /// Nodes that live now.
    [[nodiscard]] size_t live() const noexcept { return live_; }

  private:
    friend struct ResultNodeDelete;
    void give_back(ResultNode* node) noexcept;

    std::vector<void*> free_;
    size_t live_ = 0;
    queues::ValueArena arena_;
    queues::ValueWriter writer_{arena_};
};

/// Destroys a whole tree without recursion, so that its depth doesn't matter.
struct ResultNodeDelete {
    void operator()(ResultNode* node) const noexcept;
};
using ResultNodePtr = std::unique_ptr<ResultNode, ResultNodeDelete>;

/// The children of a node by key. Children come mostly in ascending order, so they are appended;
/// settle() puts in order what wasn't and merges nodes of one key. Costs an append per child, and a
/// sort only where it is needed.
class ResultChildren {
  public:
    struct Entry {
        tql::internal_id_t key;
        ResultNodePtr node;
    };

    void append(const tql::internal_id_t& key, ResultNodePtr node);
    /// Appends all of `other` and leaves it empty.
    void append_all(ResultChildren&& other);
    /// True when the keys ascend without a repetition.
    [[nodiscard]] bool settled() const noexcept { return settled_; }

    void reserve(size_t size) { entries_.reserve(size); }
    [[nodiscard]] bool empty() const noexcept { return entries_.empty(); }
    [[nodiscard]] size_t size() const noexcept { return entries_.size(); }
    /// The entries; in key order only when settled().
    [[nodiscard]] std::vector<Entry>& entries() noexcept { return entries_; }
    [[nodiscard]] const std::vector<Entry>& entries() const noexcept { return entries_; }

  private:
    friend void settle(ResultNode& node, SelectStatistics& statistics);

    std::vector<Entry> entries_;
    bool settled_ = true;
};

struct ResultNode {
    /// For ResultNodePool::make.
    ResultNode(ResultNodePool& home, const TqlObjectHandler& handler,
               const tql::origin_t& known_origin, bool is_visible);
    ResultNode(const ResultNode&) = delete;
    ResultNode& operator=(const ResultNode&) = delete;

    void add_tag(uint32_t tag);

    ResultNodePool& pool;
    uint32_t class_number;
    uint32_t flags;
    std::vector<uint32_t> tags;  ///< ascending
    tql::id_t id;
    tql::version_t version;
    tql::origin_t origin;
    queues::EncodedValues values;
    ResultChildren children;
    /// False for an object that isn't to be a node of the result; its children move up to its
    /// parent's node.
    bool visible;
};

/// Merges `node` into `slot`, both being the same object: tags and children are joined, the
/// values of `node` win. An empty slot takes the node, an empty node changes nothing. Throws
/// errors::db_anomaly when class, flags or id differ. Counts a doublet for each pair of nodes
/// merged; those below are counted when they are settled.
void merge(ResultNodePtr& slot, ResultNodePtr node, SelectStatistics& statistics);

/// Moves the children of `node` into `slot` and drops the rest of it; an empty slot takes the node.
void splice(ResultNodePtr& slot, ResultNodePtr node);

/// Puts the children of this node and of all below in key order and merges those with one key.
void settle(ResultNode& node, SelectStatistics& statistics);

}  // namespace tqlengine
