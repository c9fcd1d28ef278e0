// Whether a subscription's result can be kept up to date by patches, and what its client has to
// know for that.
//
// A patch tells of one object: where it stands, and everything that the pattern selects of it and
// below it; a delete says that an object is no longer selected. Both name objects by id, and
// neither tells of objects above the changed one that were in the result only because something
// stood below them. So a client applies them exactly if it knows which objects have to go with
// their last child; that is the plan. Where ids don't name the nodes of the result, or a node comes
// from several steps of the pattern in ways that a patch can't tell apart, there is no plan, and
// the subscription gives full results.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "tql/pattern.h"

namespace wapi {

struct PatchPlan {
    /// An object of one of these classes leaves the result when it has no child there of the
    /// classes named (13: of any class). Objects of other classes stay by themselves.
    std::map<uint32_t, std::set<uint32_t>> kept_by;
};

/// None where patches would not do. Costs a walk of the pattern, and its square in steps.
[[nodiscard]] std::optional<PatchPlan> make_patch_plan(const tql::pattern_t& pattern,
                                                       size_t root_count);

}  // namespace wapi
