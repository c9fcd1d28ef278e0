// Which subscriptions a change can touch at all, without asking each of them.
//
// A step of a pattern can match a changed object only
//   - if the object has the step's class, or the step is for any class;
//   - if the way down to the object passes the step's anchor: an object that is one of those named
//     by the id condition of the last plain step with one, this step or one before it, or, without
//     such a step, one of the roots;
//   - if the object stands as far below the anchor as there are plain steps between, or at any
//     distance when a recursive step stands between.
// Each subscription is entered once for each (anchor, class, distance) of its steps, and a change
// looks up the objects on its way. What it finds is too many but never too few.
#pragma once

#include <cstdint>
#include <set>
#include <unordered_map>
#include <vector>

#include "tql/id.h"
#include "tql/pattern.h"
#include "tqlengine/detail/chain.h"

namespace tqlengine::detail {

class SubscriptionIndex {
  public:
    /// `subscription` must not be in the index. Recurses over the pattern, whose depth must have
    /// been checked. Keeps nothing of its arguments.
    void add(uint32_t subscription, const std::set<tql::id_t>& roots,
             const tql::pattern_t& pattern);
    /// Nothing happens if it isn't in the index.
    void remove(uint32_t subscription);

    /// Ascending: all that the last object of `chain` can touch, and few others.
    [[nodiscard]] std::vector<uint32_t> candidates(const Chain& chain) const;

  private:
    static constexpr uint32_t kAnyDistance = 0xFFFFFFFF;

    struct Place {
        tql::id_t anchor;
        uint32_t class_number;
        uint32_t distance;

        friend bool operator==(const Place&, const Place&) = default;
    };
    struct PlaceHash {
        size_t operator()(const Place& place) const noexcept;
    };
    /// From what a step's distance counts, as seen on the way down the pattern.
    struct Way {
        const std::set<tql::id_t>* anchors;
        uint32_t distance;
    };
    class Collector;

    void append(std::vector<uint32_t>& out, const Place& place) const;

    std::unordered_map<Place, std::vector<uint32_t>, PlaceHash> at_;  ///< ascending
    std::unordered_map<uint32_t, std::vector<Place>> places_;
    /// Those with more places than an entry for each is worth; candidates of every change.
    std::set<uint32_t> everywhere_;
};

}  // namespace tqlengine::detail
