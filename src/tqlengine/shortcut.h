// Which index can answer a step of a pattern. The choice is the same for every store; reading the
// index is the resolver's part, in TqlIdResolver::obviousMatches.
#pragma once

#include <set>
#include <variant>

#include "tql/id.h"
#include "tql/pattern.h"

namespace tqlengine {

/// No index fits: walk.
struct NoShortcut {};
/// No object can match.
struct MatchesNothing {};
/// Only the object with this id can match.
struct ById {
    tql::id_t id;
};
/// Only objects with these ids can match. Points into the pattern.
struct ByIds {
    const std::set<tql::id_t>* ids;
};
/// Only objects that notify for this object can match (index of `alertNotifyObject`).
struct ByAlertNotifyObject {
    tql::id_t id;
};
/// Only objects with this mark can match: a list that the store threads through the tree.
struct ByMark {
    uint32_t mark;
};
/// Only the object with this id at the master server can match (index of `masterId`); a third
/// component names a child of it.
struct ByMasterId {
    tql::id_t id;
};

using Shortcut =
    std::variant<NoShortcut, MatchesNothing, ById, ByIds, ByAlertNotifyObject, ByMark, ByMasterId>;

/// The first rule that fits decides; each looks through all conditions in order. Conditions whose
/// value is of an unexpected kind fit no rule.
[[nodiscard]] Shortcut choose_shortcut(const tql::pattern_t& pattern);

}  // namespace tqlengine
