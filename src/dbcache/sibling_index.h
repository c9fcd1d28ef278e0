// SiblingIndex: finds the child of a parent by class and sibling name without loading the other
// children. It knows only the objects whose handlers are in memory, so a miss says nothing. It owns
// no handlers; each handler keeps its own entry here in step.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "util/node_id.h"

namespace dbcache {

class ObjectHandler;

class SiblingIndex {
  public:
    struct Key {
        NodeId parent;
        uint32_t class_number = 0;
        std::string name;
        friend auto operator<=>(const Key&, const Key&) = default;
    };
    using Map = std::map<Key, ObjectHandler*, std::less<>>;
    /// A place in the index, or end(); lives until its entry is erased.
    using Entry = Map::iterator;

    SiblingIndex() = default;
    SiblingIndex(const SiblingIndex&) = delete;
    SiblingIndex& operator=(const SiblingIndex&) = delete;

    [[nodiscard]] Entry end() noexcept { return entries_.end(); }
    /// Enters `handler`. An entry that stands there is taken over: that is logged, and the entry of
    /// the handler that had it is cleared.
    [[nodiscard]] Entry insert(Key key, ObjectHandler& handler);
    void erase(Entry entry) noexcept { entries_.erase(entry); }
    /// The handler in memory, or null; the caller takes its reference before anything else happens.
    [[nodiscard]] ObjectHandler* find(const NodeId& parent, uint32_t class_number,
                                      std::string_view name) const;
    [[nodiscard]] size_t size() const noexcept { return entries_.size(); }
    [[nodiscard]] const Map& entries() const noexcept { return entries_; }

  private:
    Map entries_;
};

}  // namespace dbcache
