// Whether an object matches one step of a pattern: its class, its being a template or not, and the
// conditions.
#pragma once

#include <unordered_map>

#include "tql/pattern.h"
#include "tqlengine/object_handler.h"
#include "tqlengine/select_statistics.h"

namespace tqlengine::detail {

class ConditionTest {
  public:
    explicit ConditionTest(SelectStatistics& statistics) : statistics_(statistics) {}

    /// 0 for a match; any other value is none. Class and template flag are looked at first, the
    /// object's properties only when they fit and the step has conditions. Throws
    /// errors::tql_incomparable for a condition that can't be applied. `step` must stay where it is
    /// as long as this object lives.
    uint32_t objectMatches(TqlObjectHandler& handler, const tql::pattern_t& step);

  private:
    uint32_t test_conditions(TqlObjectHandler& handler, const tql::pattern_t& step);
    const tql::pattern_t& properties_of_conditions(const tql::pattern_t& step);

    SelectStatistics& statistics_;
    std::unordered_map<const tql::pattern_t*, tql::pattern_t> condition_properties_;
    /// Siblings are tried on one step, one after the other.
    const tql::pattern_t* last_step_ = nullptr;
    const tql::pattern_t* last_properties_ = nullptr;
    /// Of the object being tested; kept for its memory.
    tql::property_map_t values_;
};

}  // namespace tqlengine::detail
