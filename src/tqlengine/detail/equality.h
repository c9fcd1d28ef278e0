// What the conditions of a step demand of an object by equality alone, in a form to look up by.
//
// Only conditions count that come before every other kind of condition, so that none of the others
// is ever tried on an object that differs: whoever leaves out a step for such an object leaves out
// nothing, not even a condition that can't be applied to it. Conditions on the id that can be
// applied to every object may stand between.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "tql/pattern.h"
#include "tql/value_kind.h"
#include "tqlengine/object_handler.h"

namespace tqlengine::detail {

/// A property and the kind of value that it is compared with.
struct EqualityField {
    uint32_t property;
    tql::value_kind_t kind;

    friend auto operator<=>(const EqualityField& a, const EqualityField& b) {
        return std::tie(a.property, a.kind.type, a.kind.enumeration) <=>
               std::tie(b.property, b.kind.type, b.kind.enumeration);
    }
    friend bool operator==(const EqualityField&, const EqualityField&) = default;
};
/// In the order in which the conditions are tried.
using EqualityFields = std::vector<EqualityField>;

/// Hashes differ only if the values do: strings that are equal but for case have the same.
struct Equality {
    EqualityFields fields;  ///< empty: the step demands nothing
    uint64_t values = 0;    ///< a hash of the values in that order
};
[[nodiscard]] Equality equality_of(const tql::pattern_t& step);

/// What one object holds, read when it is asked for and once.
class HeldValues {
  public:
    /// `object` must stay referenced and unchanged as long as this lives.
    explicit HeldValues(TqlObjectHandler& object) : object_(object) {}

    enum class outcome_t {
        differs,  ///< no step with these fields matches
        hash,     ///< steps with these fields match only if they have the same hash of values
        unknown   ///< nothing can be said without trying the conditions
    };
    struct Outcome {
        outcome_t outcome;
        uint64_t values = 0;
    };
    [[nodiscard]] Outcome compare(const EqualityFields& fields);

  private:
    bool read(const EqualityFields& fields);
    bool tests_itself(const EqualityField& field);

    TqlObjectHandler& object_;
    tql::property_map_t values_;
    std::set<uint32_t> known_;  ///< properties that are in `values_` if the object has them
};

}  // namespace tqlengine::detail
