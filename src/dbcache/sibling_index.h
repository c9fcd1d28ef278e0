// SiblingIndex: finds the child of a parent by class and sibling name without loading the other
// children. It knows only the objects whose handlers are in memory, so a miss says nothing. It owns
// no handlers; each handler keeps its own entry here in step.
//
// A hash table with chains that are threaded through the entries, which lie in the handlers: a
// look-up meets the memory of the handler that it finds and of nothing else but one slot.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "util/node_id.h"

namespace dbcache {

class ObjectHandler;

class SiblingIndex {
  public:
    /// The text belongs to whoever made the key.
    struct Key {
        NodeId parent;
        uint32_t class_number = 0;
        std::string_view name;
        friend bool operator==(const Key&, const Key&) = default;
    };
    /// The place of one handler, which may stand in the index or not.
    class Entry {
      public:
        explicit Entry(ObjectHandler& handler) : handler_(handler) {}
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

        [[nodiscard]] bool entered() const noexcept { return entered_; }
        /// What it stands in the index under, while it does.
        [[nodiscard]] Key key() const noexcept { return {parent_, class_number_, name_}; }
        [[nodiscard]] ObjectHandler& handler() const noexcept { return handler_; }

      private:
        friend class SiblingIndex;

        uint64_t hash_ = 0;
        Entry* next_ = nullptr;
        NodeId parent_;
        uint32_t class_number_ = 0;
        bool entered_ = false;
        std::string name_;
        ObjectHandler& handler_;
    };

    SiblingIndex() : slots_(kFirstSlots) {}
    SiblingIndex(const SiblingIndex&) = delete;
    SiblingIndex& operator=(const SiblingIndex&) = delete;

    /// Enters an entry that doesn't stand in the index, and has to leave it before it goes. One
    /// that stands there under this key leaves it, which is logged.
    void insert(Entry& entry, const NodeId& parent, uint32_t class_number, std::string name);
    /// Nothing happens where the entry doesn't stand in the index.
    void erase(Entry& entry) noexcept;
    /// The handler in memory, or null; the caller takes its reference before anything else happens.
    [[nodiscard]] ObjectHandler* find(const Key& key) const;
    [[nodiscard]] size_t size() const noexcept { return size_; }
    /// Calls visit(entry) for each, in no order.
    template <class Visit>
    void for_each(Visit&& visit) const {
        for (const Entry* at : slots_)
            for (; at != nullptr; at = at->next_) visit(*at);
    }

  private:
    static constexpr size_t kFirstSlots = 64;

    [[nodiscard]] static uint64_t hash(const Key& key);
    [[nodiscard]] Entry*& slot(uint64_t hash) { return slots_[hash & (slots_.size() - 1)]; }
    [[nodiscard]] Entry* find(const Key& key, uint64_t hash) const;
    void grow();

    /// A power of two; at most as many entries as slots.
    std::vector<Entry*> slots_;
    size_t size_ = 0;
};

}  // namespace dbcache
