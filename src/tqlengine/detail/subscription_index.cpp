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
    [[nodiscard]] bool too_many() const { return entries_.size() > kMostPlaces; }
    [[nodiscard]] std::vector<Entry> take() { return std::move(entries_); }

  private:
    void add(const tql::pattern_t& step, const Way& way);
    void collect_successors(const tql::pattern_t& step, const Way& way);

    std::vector<Entry> entries_;
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
    const Equality equality = equality_of(step);
    for (const tql::id_t& anchor : *way.anchors) {
        if (too_many()) return;
        entries_.push_back({{anchor, step.class_, way.distance}, equality});
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
    const std::vector<Entry>& entries =
        entries_.emplace(subscription, collector.take()).first->second;
    for (const Entry& entry : entries) enter(subscription, entry);
}

void SubscriptionIndex::enter(uint32_t subscription, const Entry& entry) {
    Entries& there = at_[entry.place];
    if (entry.equality.fields.empty())
        insert(there.whatever, subscription);
    else
        insert(there.by_fields[entry.equality.fields][entry.equality.values], subscription);
}

void SubscriptionIndex::remove(uint32_t subscription) {
    everywhere_.erase(subscription);
    const auto known = entries_.find(subscription);
    if (known == entries_.end()) return;
    for (const Entry& entry : known->second) leave(subscription, entry);
    entries_.erase(known);
}

/// The same entry may have been left before, where two steps of a pattern make the same one.
void SubscriptionIndex::leave(uint32_t subscription, const Entry& entry) {
    const auto place = at_.find(entry.place);
    if (place == at_.end()) return;
    Entries& there = place->second;
    const auto with_fields = there.by_fields.find(entry.equality.fields);
    if (with_fields == there.by_fields.end()) {
        if (entry.equality.fields.empty()) erase(there.whatever, subscription);
    } else {
        ByValues& by_values = with_fields->second;
        const auto with_values = by_values.find(entry.equality.values);
        if (with_values == by_values.end()) return;
        erase(with_values->second, subscription);
        if (with_values->second.empty()) by_values.erase(with_values);
        if (by_values.empty()) there.by_fields.erase(with_fields);
    }
    if (there.empty()) at_.erase(place);
}

std::vector<uint32_t> SubscriptionIndex::candidates(const Chain& chain) const {
    Numbers found(everywhere_.begin(), everywhere_.end());
    HeldValues held(*chain.back().object);
    const uint32_t class_number = chain.back().object->class_number();
    uint32_t distance = static_cast<uint32_t>(chain.size());
    for (const ChainLink& link : chain) {
        --distance;
        for (const uint32_t wanted : {class_number, cls::Any})
            for (const uint32_t apart : {distance, kAnyDistance})
                append(found, {link.id, wanted, apart}, held);
    }
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

void SubscriptionIndex::append(Numbers& out, const Place& place, HeldValues& held) const {
    const auto there = at_.find(place);
    if (there == at_.end()) return;
    const auto add = [&out](const Numbers& more) {
        out.insert(out.end(), more.begin(), more.end());
    };
    add(there->second.whatever);
    for (const auto& [fields, by_values] : there->second.by_fields) {
        const HeldValues::Outcome outcome = held.compare(fields);
        if (outcome.outcome == HeldValues::outcome_t::unknown) {
            for (const auto& [values, numbers] : by_values) add(numbers);
        } else if (outcome.outcome == HeldValues::outcome_t::hash) {
            const auto equal = by_values.find(outcome.values);
            if (equal != by_values.end()) add(equal->second);
        }
    }
}

}  // namespace tqlengine::detail
