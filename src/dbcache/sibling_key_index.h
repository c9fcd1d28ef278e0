// SiblingKeyIndex: tells which children of a parent may have a given key, so that a create or
// update need not compare with thousands of siblings. It is built for a parent when a check has
// met many children there, holds hashes and ids alone, no handlers, and is dropped under a bound.
//
// It answers with candidates, which the caller compares by their stored records. So it has to keep
// one promise:
//
//   K1 every stored child of the parent, of the classes of the scope, is a candidate for its key
//
// and entries beyond that do no harm. K1 holds since
//   - a set of keys is filled only while no transaction is open, from committed records;
//   - who writes the record of an object enters its key (note) in the same transaction;
//   - an entry is taken out only while no transaction is open, when the committed record of its
//     object has another key or another parent.
// An abort therefore needs nothing: the keys that come back by it are still entered.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "dbcache/sibling_key.h"
#include "util/node_id.h"

namespace dbcache {

/// What makes two checks under one parent ask the same question.
struct KeyScope {
    /// Of the object that is compared: it decides which group of the parent counts.
    uint32_t nodetype = 0;
    std::set<uint32_t> classes;
    std::vector<const PropertySchema*> schemas;

    friend bool operator==(const KeyScope&, const KeyScope&) = default;
};

/// The keys of the children of one parent under one scope.
class ParentKeys {
  public:
    ParentKeys(const NodeId& parent, KeyScope scope) : parent_(parent), scope_(std::move(scope)) {}

    [[nodiscard]] const NodeId& parent() const noexcept { return parent_; }
    [[nodiscard]] const KeyScope& scope() const noexcept { return scope_; }
    [[nodiscard]] size_t size() const noexcept { return by_hash_.size() + unknown_.size(); }

    /// Enters the key that `record` has, beside any that was entered for `id` before.
    void enter(const NodeId& id, const PropertyChain& record);
    /// The ids of those whose key may have `hash`.
    [[nodiscard]] std::vector<NodeId> candidates(uint64_t hash) const;
    /// Takes `id` out as a candidate for `hash`. Only while no transaction is open (K1).
    void erase(uint64_t hash, const NodeId& id);

  private:
    NodeId parent_;
    KeyScope scope_;
    std::set<std::pair<uint64_t, NodeId>> by_hash_;
    std::set<NodeId> unknown_;
};

class SiblingKeyIndex {
  public:
    /// An entry takes about 64 bytes.
    static constexpr size_t kDefaultMaxEntries = size_t{1} << 18;

    SiblingKeyIndex() = default;
    SiblingKeyIndex(const SiblingKeyIndex&) = delete;
    SiblingKeyIndex& operator=(const SiblingKeyIndex&) = delete;

    /// The keys kept for `parent` and `scope`, or null; they become the most recently used. Valid
    /// until the next call that isn't const.
    [[nodiscard]] ParentKeys* find(const NodeId& parent, const KeyScope& scope);
    /// Keeps freshly built keys; drops those least recently used until the bound holds. Gives null
    /// when they alone are beyond it.
    ParentKeys* keep(ParentKeys keys);

    /// Whether note() has anything to do for a child of `parent`.
    [[nodiscard]] bool knows(const NodeId& parent) const { return by_parent_.contains(parent); }
    /// `record` has been written: a child of `parent`, of the class `class_number`, new, changed or
    /// moved here.
    void note(const NodeId& parent, const NodeId& id, uint32_t class_number,
              const PropertyChain& record);
    /// Drops what is kept for `parent`.
    void forget(const NodeId& parent);

    [[nodiscard]] size_t max_entries() const noexcept { return max_entries_; }
    /// Takes effect at once.
    void set_max_entries(size_t max_entries);
    /// Calls `visit` with all that is kept, most recently used first.
    void for_each(const std::function<void(const ParentKeys&)>& visit) const {
        for (const Kept& kept : recent_) visit(kept.keys);
    }
    /// Over all parents.
    [[nodiscard]] size_t entries() const noexcept { return entries_; }

  private:
    struct Kept {
        ParentKeys keys;
        /// Entries when it was built: what came since may be as many again.
        size_t built = 0;
        /// Counted in entries_.
        size_t counted = 0;
    };
    using Recent = std::list<Kept>;

    void recount(Kept& kept);
    /// Drops the least recently used ones until the bound holds.
    void shrink();
    void drop(Recent::iterator kept);

    size_t max_entries_ = kDefaultMaxEntries;
    size_t entries_ = 0;
    /// Most recently used first.
    Recent recent_;
    std::unordered_map<NodeId, std::vector<Recent::iterator>> by_parent_;
};

}  // namespace dbcache
