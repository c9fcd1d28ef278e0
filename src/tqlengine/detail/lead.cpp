#include "tqlengine/detail/lead.h"

#include <algorithm>

#include "error/exception.h"
#include "tql/names.h"

namespace tqlengine::detail {

namespace {

// The classes of the steps that are tried at one object together.
struct StepClasses {
    std::set<uint32_t> hidden;
    std::set<uint32_t> shown;

    void add(const tql::pattern_t& step) {
        const bool hides = (step.flags & tql::kPatternSplice) != 0;
        (hides ? hidden : shown).insert(step.class_);
        if ((step.flags & tql::kPatternRecursive) != 0)
            for (const tql::pattern_t& successor : step.next) add(successor);
    }
    [[nodiscard]] bool overlap() const {
        if (hidden.empty() || shown.empty()) return false;
        if (hidden.contains(cls::Any) || shown.contains(cls::Any)) return true;
        return std::any_of(hidden.begin(), hidden.end(),
                           [&](uint32_t number) { return shown.contains(number); });
    }
};

}  // namespace

// ---- the nodes of a lead -----------------------------------------------------------------------

void LeadNode::append(LeadNode& child) {
    child.above = this;
    (last_child == nullptr ? first_child : last_child->next_sibling) = &child;
    last_child = &child;
}

/// Objects made together are found together: sixteen ids in a row mostly lie in slots in a row.
uint32_t LeadNodes::hash_of(const tql::id_t& id) noexcept {
    constexpr uint32_t kRowBits = 4;
    uint64_t row = id.size();
    uint64_t in_row = 0;
    for (const uint32_t word : id) {
        row = (row ^ word >> kRowBits) * 0x9E3779B97F4A7C15U;
        row ^= row >> 32;
        in_row += word & ((1U << kRowBits) - 1);
    }
    return static_cast<uint32_t>(row + in_row);
}

/// The slot of `id`, or the empty one in which it belongs.
size_t LeadNodes::place_of(const tql::id_t& id, uint32_t hash) const noexcept {
    size_t at = hash & (slots_.size() - 1);
    while (slots_[at].number != 0 &&
           (slots_[at].hash != hash || nodes_[slots_[at].number - 1].id != id))
        at = (at + 1) & (slots_.size() - 1);
    return at;
}

std::pair<LeadNode*, bool> LeadNodes::ensure(const tql::id_t& id) {
    const uint32_t hash = hash_of(id);
    Slot& slot = slots_[place_of(id, hash)];
    if (slot.number != 0) return {&nodes_[slot.number - 1], false};
    nodes_.emplace_back().id = id;
    slot = {hash, static_cast<uint32_t>(nodes_.size())};
    reserve(nodes_.size());
    return {&nodes_.back(), true};
}

void LeadNodes::drop_last() {
    const tql::id_t& id = nodes_.back().id;
    slots_[place_of(id, hash_of(id))] = {};
    nodes_.pop_back();
}

void LeadNodes::reserve(size_t count) {
    size_t size = slots_.size();
    while (size < 2 * count) size *= 2;
    if (size > slots_.size()) resize(size);
}

void LeadNodes::resize(size_t size) {
    slots_.assign(size, {});
    for (size_t i = 0; i < nodes_.size(); ++i) {
        const uint32_t hash = hash_of(nodes_[i].id);
        slots_[place_of(nodes_[i].id, hash)] = {hash, static_cast<uint32_t>(i + 1)};
    }
}

// ---- the search for leads ----------------------------------------------------------------------

bool LeadScan::scan(const tql::pattern_t& step, const Way* above) {
    const Way way{step, above};
    size_t taken_over = 0;
    for (const tql::pattern_t& successor : step.next) {
        if (!scan(successor, &way)) continue;
        extracted_.insert(&successor);
        ++taken_over;
    }

    // An object of this step stands in the result for the sake of its successors only, and the
    // leads bring it.
    const bool keep = (step.flags & tql::kPatternKeep) != 0;
    if (taken_over > 0 && taken_over == step.next.size() && !keep) return true;

    // What follows a recursive step may begin without a single object that matches the step, so an
    // index on the step itself would miss it.
    const bool recursive = (step.flags & tql::kPatternRecursive) != 0;
    if (recursive && taken_over < step.next.size()) return false;

    HandlerList hits;
    if (!resolver_.obviousMatches(hits, origin_, step)) return false;
    if (hits.empty()) return true;

    auto lead = std::make_unique<Lead>();
    lead->nodes.reserve(hits.size());
    Climbs climbs{*lead};
    for (HandlerRef& hit : hits) {
        error::check(static_cast<bool>(hit),
                     "obviousMatches supplied NULL on TqlObjectHandler list");
        climb(climbs, std::move(hit));
    }
    if (!lead->root) return true;
    lead->path = reduced(step);
    for (; above != nullptr; above = above->above) lead->stack.push_back(&above->step);
    std::reverse(lead->stack.begin(), lead->stack.end());
    leads_.push_back(std::move(lead));
    return true;
}

void LeadScan::climb(Climbs& climbs, HandlerRef hit) const {
    LeadNode* const previous = std::exchange(climbs.previous, nullptr);
    LeadNode* lowest = nullptr;
    LeadNode* below = nullptr;
    for (HandlerRef object = std::move(hit);;) {
        const auto [node, is_new] = climbs.lead.nodes.ensure(object->tqlId());
        if (below != nullptr)
            node->append(*below);
        else
            node->match_end = true;
        if (lowest == nullptr) lowest = node;
        if (!is_new) break;
        node->handler = std::move(object);
        if (node->id == origin_) {
            climbs.lead.root = node;
            break;
        }
        // Hits come by the score from under one object.
        if (below == nullptr && previous != nullptr && previous->above != nullptr &&
            node->handler->surely_beside(*previous->handler)) {
            previous->above->append(*node);
            break;
        }
        object = node->handler->tqlParentHandler();
        if (!object || climbs.dead.contains(object->tqlId())) return forget(climbs, *lowest);
        below = node;
    }
    climbs.previous = lowest;
}

/// A climb led out of the origin's subtree: its nodes go, and no later hit goes that way again.
void LeadScan::forget(Climbs& climbs, const LeadNode& lowest) {
    size_t made = 0;
    for (const LeadNode* at = &lowest; at != nullptr; at = at->above, ++made)
        climbs.dead.insert(at->id);
    while (made-- > 0) climbs.lead.nodes.drop_last();
}

tql::pattern_t LeadScan::reduced(const tql::pattern_t& step) const {
    tql::pattern_t copy(step.class_, step.flags);
    copy.tag = step.tag;
    copy.cond_next = step.cond_next;
    copy.where = step.where;
    copy.wanted_properties = step.wanted_properties;
    for (const tql::pattern_t& successor : step.next)
        if (!extracted_.contains(&successor)) copy.next.push_back(reduced(successor));
    if (copy.next.size() != step.next.size()) copy.flags |= kHadSuccessors;
    return copy;
}

bool needs_one_walk(const tql::pattern_t& pattern) {
    if ((pattern.flags & tql::kPatternRecursive) != 0) {
        StepClasses together;
        together.add(pattern);
        if (together.overlap()) return true;
    }
    return std::any_of(pattern.next.begin(), pattern.next.end(), needs_one_walk) ||
           std::any_of(pattern.cond_next.begin(), pattern.cond_next.end(), needs_one_walk);
}

}  // namespace tqlengine::detail
