// Which subscriptions a change can touch at all, without asking each of them.
//
// A step of a pattern can match a changed object only
//   - if the object has the step's class, or the step is for any class;
//   - if the way down to the object passes the step's anchor: an object that is one of those named
//     by the id condition of the last plain step with one, this step or one before it, or, without
//     such a step, one of the roots;
//   - if the object stands as far below the anchor as there are plain steps between, or at any
//     distance when a recursive step stands between;
//   - if the object holds the values that the step's conditions demand by equality.
// Each subscription is entered once for each (anchor, class, distance) of its steps, there among
// those with the same demands, and a change looks up the objects on its way and what it holds. What
// it finds is too many but never too few.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "tql/id.h"
#include "tql/pattern.h"
#include "tqlengine/detail/chain.h"
#include "tqlengine/detail/equality.h"

namespace tqlengine::detail {

class SubscriptionIndex {
  public:
    /// `subscription` must not be in the index. Recurses over the pattern, whose depth must have
    /// been checked. Keeps nothing of its arguments.
    void add(uint32_t subscription, const std::set<tql::id_t>& roots,
             const tql::pattern_t& pattern);
    /// Nothing happens if it isn't in the index.
    void remove(uint32_t subscription);

    /// Ascending: all that the last object of `chain` can touch, and few others. Reads of the
    /// object what subscriptions for its class and place demand of it by equality.
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
    /// Where a subscription is entered.
    struct Entry {
        Place place;
        Equality equality;
    };
    using Numbers = std::vector<uint32_t>;  ///< ascending
    using ByValues = std::unordered_map<uint64_t, Numbers>;
    /// The subscriptions with steps at one place.
    struct Entries {
        Numbers whatever;  ///< those that demand nothing by equality
        std::map<EqualityFields, ByValues> by_fields;

        [[nodiscard]] bool empty() const { return whatever.empty() && by_fields.empty(); }
    };
    /// From what a step's distance counts, as seen on the way down the pattern.
    struct Way {
        const std::set<tql::id_t>* anchors;
        uint32_t distance;
    };
    class Collector;

    void enter(uint32_t subscription, const Entry& entry);
    void leave(uint32_t subscription, const Entry& entry);
    void append(Numbers& out, const Place& place, HeldValues& held) const;

    std::unordered_map<Place, Entries, PlaceHash> at_;
    std::unordered_map<uint32_t, std::vector<Entry>> entries_;
    /// Those with more places than an entry for each is worth; candidates of every change.
    std::set<uint32_t> everywhere_;
};

}  // namespace tqlengine::detail
