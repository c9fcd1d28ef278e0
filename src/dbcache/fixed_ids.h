// The ids of objects and places that every database has.
#pragma once

#include <cstdint>

#include "util/node_id.h"

namespace dbcache {

/// The root domain.
inline constexpr NodeId kRootId{0, 1};
/// Parent of tombstones whose subtree is gone. No object.
inline constexpr NodeId kFinishedTombstones{0, 3};
/// The sequence object: ring sequence and format number. Has no class and stands in no tree.
inline constexpr NodeId kSequenceId{0, 4};
/// Parent of tombstones whose subtree is still there. No object.
inline constexpr NodeId kFreshTombstones{0, 5};
inline constexpr NodeId kClusterConfigId{0, 512};
inline constexpr NodeId kClusterServerConfigId{0, 513};

/// Properties of the sequence object alone, which no client sees.
namespace sequence_property {
inline constexpr uint32_t ring_sequence = 2900;
inline constexpr uint32_t format = 2901;
}  // namespace sequence_property

/// From this database format on there are mark lists.
inline constexpr uint32_t kFormatWithMarks = 11;

/// Ids that no client may give to a new object.
[[nodiscard]] constexpr bool is_reserved_id(const NodeId& id) noexcept {
    return id.is_null() || id == kFinishedTombstones || id == kSequenceId || id == kFreshTombstones;
}

}  // namespace dbcache
