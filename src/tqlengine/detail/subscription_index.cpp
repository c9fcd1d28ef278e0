#include "tqlengine/detail/subscription_index.h"

#include <algorithm>
#include <variant>

#include "tql/names.h"
#include "tqlengine/shortcut.h"

namespace tqlengine::detail {

namespace {

// Patterns of everyday have some ten steps and one root.
constexpr size_t kMostPlaces = 256;

void insert(std::vector<uint32_t>& ascending, uint32_t number) {
    const auto place = std::lower_bound(ascending.begin(), ascending.end(), number);
    if (place == ascending.end() || *place != number) ascending.insert(place, number);
}

void erase(std::vector<uint32_t>& ascending, uint32_t number) {
    const auto place = std::lower_bound(ascending.begin(), ascending.end(), number);
    if (place != ascending.end() && *place == number) ascending.erase(place);
}

}  // namespace

/// Goes through a pattern and notes the places of its steps, until there are too many.
class SubscriptionIndex::Collector {
  public:
    void collect(const tql::pattern_t& step, Way way);
    [[nodiscard]] bool too_many() const { return places_.size() > kMostPlaces; }
    [[nodiscard]] std::vector<Place> take() { return std::move(places_); }

  private:
    void add(const tql::pattern_t& step, const Way& way);
    void collect_successors(const tql::pattern_t& step, const Way& way);

    std::vector<Place> places_;
};

void SubscriptionIndex::Collector::collect(const tql::pattern_t& step, Way way) {
    if (too_many()) return;
    const Shortcut shortcut = choose_shortcut(step);
    std::set<tql::id_t> one;
    const std::set<tql::id_t>* own = nullptr;
    if (const auto* by_id = std::get_if<ById>(&shortcut)) {
        one.insert(by_id->id);
        own = &one;
    } else if (const auto* by_ids = std::get_if<ByIds>(&shortcut)) {
        own = by_ids->ids;
    }
    if ((step.flags & tql::kPatternRecursive) != 0) {
        // What follows may begin without one object that matches this step, whatever it names.
        way.distance = kAnyDistance;
        add(step, own ? Way{own, 0} : way);
        collect_successors(step, way);
        return;
    }
    if (own) way = {own, 0};
    add(step, way);
    if (step.next.empty()) return;
    if (way.distance != kAnyDistance) ++way.distance;
    collect_successors(step, way);
}

void SubscriptionIndex::Collector::add(const tql::pattern_t& step, const Way& way) {
    for (const tql::id_t& anchor : *way.anchors) {
        if (too_many()) return;
        places_.push_back({anchor, step.class_, way.distance});
    }
}

void SubscriptionIndex::Collector::collect_successors(const tql::pattern_t& step, const Way& way) {
    for (const tql::pattern_t& successor : step.next) collect(successor, way);
    for (const tql::pattern_t& successor : step.cond_next) collect(successor, way);
}

size_t SubscriptionIndex::PlaceHash::operator()(const Place& place) const noexcept {
    uint64_t hash = (uint64_t{place.class_number} << 32) | place.distance;
    for (const uint32_t word : place.anchor)
        hash = (hash ^ word ^ (hash >> 29)) * 0x9E3779B97F4A7C15U;
    return static_cast<size_t>(hash ^ (hash >> 32));
}

void SubscriptionIndex::add(uint32_t subscription, const std::set<tql::id_t>& roots,
                            const tql::pattern_t& pattern) {
    Collector collector;
    collector.collect(pattern, {&roots, 0});
    if (collector.too_many()) {
        everywhere_.insert(subscription);
        return;
    }
    const std::vector<Place>& places =
        places_.emplace(subscription, collector.take()).first->second;
    for (const Place& place : places) insert(at_[place], subscription);
}

void SubscriptionIndex::remove(uint32_t subscription) {
    everywhere_.erase(subscription);
    const auto known = places_.find(subscription);
    if (known == places_.end()) return;
    for (const Place& place : known->second) {
        const auto there = at_.find(place);
        if (there == at_.end()) continue;
        erase(there->second, subscription);
        if (there->second.empty()) at_.erase(there);
    }
    places_.erase(known);
}

std::vector<uint32_t> SubscriptionIndex::candidates(const Chain& chain) const {
    std::vector<uint32_t> found(everywhere_.begin(), everywhere_.end());
    const uint32_t class_number = chain.back().object->class_number();
    uint32_t distance = static_cast<uint32_t>(chain.size());
    for (const ChainLink& link : chain) {
        --distance;
        for (const uint32_t wanted : {class_number, cls::Any})
            for (const uint32_t apart : {distance, kAnyDistance})
                append(found, {link.id, wanted, apart});
    }
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

void SubscriptionIndex::append(std::vector<uint32_t>& out, const Place& place) const {
    const auto there = at_.find(place);
    if (there != at_.end()) out.insert(out.end(), there->second.begin(), there->second.end());
}

}  // namespace tqlengine::detail
