// SiblingIndex: finds the child of a parent by class and sibling name without loading the other
// children. It knows only the objects whose handlers are in memory, so a miss says nothing. It owns
// no handlers; each handler keeps its own entry here in step.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "util/node_id.h"

namespace dbcache {

class ObjectHandler;

class SiblingIndex {
  public:
    /// What a look-up is made by; the text must live as long as the call.
    struct View {
        NodeId parent;
        uint32_t class_number = 0;
        std::string_view name;
        friend bool operator==(const View&, const View&) = default;
    };
    struct Key {
        NodeId parent;
        uint32_t class_number = 0;
        std::string name;
        operator View() const noexcept { return {parent, class_number, name}; }
    };
    struct Hash {
        using is_transparent = void;
        /// Not noexcept: by that the map keeps the hashes instead of working them out again.
        [[nodiscard]] size_t operator()(const View& key) const;
    };
    struct Equal {
        using is_transparent = void;
        [[nodiscard]] bool operator()(const View& a, const View& b) const noexcept {
            return a == b;
        }
    };
    using Map = std::unordered_map<Key, ObjectHandler*, Hash, Equal>;
    /// A place in the index, or end(); lives until its entry is erased.
    using Entry = Map::value_type*;

    SiblingIndex() = default;
    SiblingIndex(const SiblingIndex&) = delete;
    SiblingIndex& operator=(const SiblingIndex&) = delete;

    [[nodiscard]] Entry end() const noexcept { return nullptr; }
    /// Enters `handler`. An entry that stands there is taken over: that is logged, and the entry of
    /// the handler that had it is cleared.
    [[nodiscard]] Entry insert(Key key, ObjectHandler& handler);
    void erase(Entry entry) noexcept { entries_.erase(entries_.find(entry->first)); }
    /// The handler in memory, or null; the caller takes its reference before anything else happens.
    [[nodiscard]] ObjectHandler* find(const NodeId& parent, uint32_t class_number,
                                      std::string_view name) const;
    [[nodiscard]] size_t size() const noexcept { return entries_.size(); }
    /// In no order.
    [[nodiscard]] const Map& entries() const noexcept { return entries_; }

  private:
    Map entries_;
};

}  // namespace dbcache
