// Leads: what an index answered to one step of a pattern, with the chains of objects from the hits
// up to the object that the select started at. Walking along a lead visits these chains instead of
// whole subtrees.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tql/id.h"
#include "tql/pattern.h"
#include "tqlengine/id_resolver.h"
#include "tqlengine/object_handler.h"

namespace tqlengine::detail {

/// Marks, in the flags of a reduced copy of a step, that the step had successors which leads have
/// taken over. Means nothing to handlers.
inline constexpr uint32_t kHadSuccessors = 0x40000000;

struct LeadNode {
    tql::id_t id;
    HandlerRef handler;
    LeadNode* above = nullptr;
    LeadNode* first_child = nullptr;
    LeadNode* last_child = nullptr;
    LeadNode* next_sibling = nullptr;
    bool match_end = false;  ///< this object itself is a hit

    /// Puts `child` behind the other children.
    void append(LeadNode& child);
};

/// The nodes of a lead by id. They stay where they are while others come and go.
class LeadNodes {
  public:
    /// Makes room for the index of so many.
    void reserve(size_t count);
    /// The node of `id`, and whether it has just been made.
    std::pair<LeadNode*, bool> ensure(const tql::id_t& id);
    /// Takes back the node made last.
    void drop_last();

  private:
    /// Open addressing with linear probing, at most half full. Nodes go in the reverse order in
    /// which they came, so each leaves the slots as they were before it.
    struct Slot {
        uint32_t hash = 0;
        uint32_t number = 0;  ///< place in nodes_, from 1; 0 for none
    };
    static constexpr size_t kFirstSlots = 16;

    static uint32_t hash_of(const tql::id_t& id) noexcept;
    [[nodiscard]] size_t place_of(const tql::id_t& id, uint32_t hash) const noexcept;
    void resize(size_t slots);

    std::deque<LeadNode> nodes_;
    std::vector<Slot> slots_ = std::vector<Slot>(kFirstSlots);
};

struct Lead {
    LeadNodes nodes;
    LeadNode* root = nullptr;
    /// The step that the index answered, without the successors that other leads have taken over.
    tql::pattern_t path;
    /// The steps of the caller's pattern above it, the top first.
    std::vector<const tql::pattern_t*> stack;
};

/// Divides a pattern at one origin into what an index answers and what must be walked. Recurses
/// over the pattern, so its depth must have been checked.
class LeadScan {
  public:
    /// All three must outlive the scan.
    LeadScan(TqlIdResolver& resolver, const tql::id_t& origin)
        : resolver_(resolver), origin_(origin) {}

    /// True when leads, possibly none, answer all of `step`; then nothing of it is left to walk.
    bool scan(const tql::pattern_t& step) { return scan(step, nullptr); }

    [[nodiscard]] const std::vector<std::unique_ptr<Lead>>& leads() const noexcept {
        return leads_;
    }
    /// Whether a walk needs reduced() in place of the pattern itself.
    [[nodiscard]] bool has_extracted() const noexcept { return !extracted_.empty(); }
    /// A copy of `step` without what leads have taken over.
    [[nodiscard]] tql::pattern_t reduced(const tql::pattern_t& step) const;

  private:
    /// A step and those above it.
    struct Way {
        const tql::pattern_t& step;
        const Way* above;
    };
    bool scan(const tql::pattern_t& step, const Way* above);
    /// What the climbs of one lead have in common.
    struct Climbs {
        Lead& lead;
        std::set<tql::id_t> dead{};    ///< of climbs that failed
        LeadNode* previous = nullptr;  ///< the hit of the last climb, if that came to the origin
    };
    void climb(Climbs& climbs, HandlerRef hit) const;
    static void forget(Climbs& climbs, const LeadNode& lowest);

    TqlIdResolver& resolver_;
    const tql::id_t& origin_;
    std::vector<std::unique_ptr<Lead>> leads_;
    std::unordered_set<const tql::pattern_t*> extracted_;
};

/// Whether an object that a recursive step of `pattern` reaches can match both a step whose objects
/// are hidden and one whose objects aren't. What is below such an object is put under it or under
/// its parent depending on all of its matches together, so the pattern can't be evaluated in parts.
/// Recurses over the pattern.
[[nodiscard]] bool needs_one_walk(const tql::pattern_t& pattern);

}  // namespace tqlengine::detail
