// Random patterns for the tree of a World, aimed so that many of them find something.
#pragma once

#include "tql/pattern.h"
#include "world.h"

namespace queries {

/// What a pattern may ask for.
enum class ask_t {
    anything,
    /// Only values that change with a write to the object itself or to one above it, so that
    /// whoever subscribes is told of every change; and no condition that can't be applied.
    told,
};

class PatternMaker {
  public:
    PatternMaker(support::Rng& rng, const World& world, ask_t ask)
        : rng_(rng), world_(world), ask_(ask) {}

    /// For a root of class `class_number`.
    tql::pattern_t pattern(uint32_t class_number, int levels = 3);

  private:
    void add_flags(tql::pattern_t& step);
    void add_wanted(tql::pattern_t& step);
    tql::condition_t condition(uint32_t class_number);
    tql::condition_t index_condition(uint32_t class_number);
    tql::condition_t text_condition();
    tql::condition_t odd_condition();
    uint32_t class_below(uint32_t class_number);

    support::Rng& rng_;
    const World& world_;
    ask_t ask_;
};

}  // namespace queries
