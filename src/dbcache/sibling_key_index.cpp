#include "dbcache/sibling_key_index.h"

#include <algorithm>

namespace dbcache {

namespace {

/// Entries that may come since the keys were built, beyond as many as there were then. What has
/// been outdated by renames and deletes goes when the keys are built anew.
constexpr size_t kGrowthAllowance = 1024;

}  // namespace

// ---- ParentKeys --------------------------------------------------------------------------------

void ParentKeys::enter(const NodeId& id, const PropertyChain& record) {
    const StoredKeyHash key = hash_stored_key(scope_.schemas, record);
    if (key.state == StoredKeyHash::known) by_hash_.emplace(key.hash, id);
    if (key.state == StoredKeyHash::unknown) unknown_.insert(id);
}

std::vector<NodeId> ParentKeys::candidates(uint64_t hash) const {
    std::vector<NodeId> ids(unknown_.begin(), unknown_.end());
    for (auto at = by_hash_.lower_bound({hash, NodeId{}});
         at != by_hash_.end() && at->first == hash; ++at)
        if (!unknown_.contains(at->second)) ids.push_back(at->second);
    return ids;
}

void ParentKeys::erase(uint64_t hash, const NodeId& id) {
    by_hash_.erase({hash, id});
    unknown_.erase(id);
}

// ---- SiblingKeyIndex ---------------------------------------------------------------------------

ParentKeys* SiblingKeyIndex::find(const NodeId& parent, const KeyScope& scope) {
    const auto kept = by_parent_.find(parent);
    if (kept == by_parent_.end()) return nullptr;
    for (const Recent::iterator at : kept->second) {
        if (!(at->keys.scope() == scope)) continue;
        recount(*at);  // entries may have been taken out since
        recent_.splice(recent_.begin(), recent_, at);
        return &at->keys;
    }
    return nullptr;
}

ParentKeys* SiblingKeyIndex::keep(ParentKeys keys) {
    if (keys.size() > max_entries_) return nullptr;
    const size_t size = keys.size();
    recent_.push_front({std::move(keys), size, 0});
    by_parent_[recent_.front().keys.parent()].push_back(recent_.begin());
    recount(recent_.front());
    shrink();
    return &recent_.front().keys;
}

void SiblingKeyIndex::note(const NodeId& parent, const NodeId& id, uint32_t class_number,
                           const PropertyChain& record) {
    const auto kept = by_parent_.find(parent);
    if (kept == by_parent_.end()) return;
    std::vector<Recent::iterator> outgrown;
    for (const Recent::iterator at : kept->second) {
        if (!at->keys.scope().classes.contains(class_number)) continue;
        at->keys.enter(id, record);
        recount(*at);
        if (at->counted > 2 * at->built + kGrowthAllowance) outgrown.push_back(at);
    }
    for (const Recent::iterator at : outgrown) drop(at);
    shrink();
}

void SiblingKeyIndex::forget(const NodeId& parent) {
    const auto kept = by_parent_.find(parent);
    if (kept == by_parent_.end()) return;
    const std::vector<Recent::iterator> all = kept->second;
    for (const Recent::iterator at : all) drop(at);
}

void SiblingKeyIndex::set_max_entries(size_t max_entries) {
    max_entries_ = max_entries;
    shrink();
}

void SiblingKeyIndex::recount(Kept& kept) {
    entries_ += kept.keys.size() - kept.counted;
    kept.counted = kept.keys.size();
}

void SiblingKeyIndex::shrink() {
    while (entries_ > max_entries_) drop(std::prev(recent_.end()));
}

void SiblingKeyIndex::drop(Recent::iterator kept) {
    entries_ -= kept->counted;
    const auto of_parent = by_parent_.find(kept->keys.parent());
    std::erase(of_parent->second, kept);
    if (of_parent->second.empty()) by_parent_.erase(of_parent);
    recent_.erase(kept);
}

}  // namespace dbcache
