#include "tqlengine/result_node.h"

#include <algorithm>
#include <iterator>
#include <new>

#include "error/exception.h"
#include "tqlengine/object_handler.h"
#include "tqlengine/select_statistics.h"

namespace tqlengine {

namespace {

// Enough for the answers of everyday; a select of the whole tree gives the rest back to the system.
constexpr size_t kKeptNodes = 4096;

}  // namespace

ResultNodePool::~ResultNodePool() {
    for (void* memory : free_) ::operator delete(memory);
}

ResultNodePtr ResultNodePool::make(TqlObjectHandler& handler, bool visible) {
    return make(handler, handler.tqlOrigin(), visible);
}

ResultNodePtr ResultNodePool::make(const TqlObjectHandler& handler, const tql::origin_t& origin,
                                   bool visible) {
    if (free_.empty()) {
        // With room kept in the list, giving a node back never has to allocate.
        free_.reserve(kKeptNodes);
        free_.push_back(::operator new(sizeof(ResultNode)));
    }
    // Back to the list unless a node comes to live in it.
    const auto put_back = [this](void* memory) { free_.push_back(memory); };
    std::unique_ptr<void, decltype(put_back)> memory(free_.back(), put_back);
    free_.pop_back();
    ResultNodePtr made(::new (memory.get()) ResultNode(*this, handler, origin, visible));
    (void)memory.release();
    ++live_;
    return made;
}

void ResultNodePool::encode(ResultNode& node, TqlObjectHandler& handler,
                            const tql::pattern_t& step) {
    if (!step.wants_any()) return;
    writer_.begin();
    handler.encode_result(step, writer_);
    take_values(node, writer_.finish());
}

void ResultNodePool::encode(ResultNode& node, const tql::property_map_t& values) {
    writer_.begin();
    writer_.add(values);
    take_values(node, writer_.finish());
}

void ResultNodePool::take_values(ResultNode& node, const queues::EncodedValues& values) {
    if (node.values.empty() || values.empty()) {
        if (!values.empty()) node.values = values;
        return;
    }
    const queues::EncodedValues before = std::exchange(node.values, {});
    writer_.begin();
    writer_.add(queues::decode(before));
    writer_.add(queues::decode(values));
    node.values = writer_.finish();
}

void ResultNodePool::give_back(ResultNode* node) noexcept {
    node->~ResultNode();
    if (--live_ == 0) arena_.clear();
    if (free_.size() < kKeptNodes)
        free_.push_back(node);
    else
        ::operator delete(node);
}

void ResultNodeDelete::operator()(ResultNode* node) const noexcept {
    if (node->children.empty()) {
        node->pool.give_back(node);
        return;
    }
    std::vector<ResultNode*> doomed{node};
    while (!doomed.empty()) {
        ResultNode* next = doomed.back();
        doomed.pop_back();
        for (auto& entry : next->children.entries()) {
            ResultNode* child = entry.node.release();
            if (!child) continue;
            if (child->children.empty())
                child->pool.give_back(child);
            else
                doomed.push_back(child);
        }
        next->children.entries().clear();
        next->pool.give_back(next);
    }
}

void ResultChildren::append(const tql::internal_id_t& key, ResultNodePtr node) {
    settled_ = settled_ && (entries_.empty() || entries_.back().key < key);
    entries_.push_back({key, std::move(node)});
}

void ResultChildren::append_all(ResultChildren&& other) {
    if (entries_.empty()) {
        entries_.swap(other.entries_);
        settled_ = other.settled_;
    } else if (!other.entries_.empty()) {
        settled_ = settled_ && other.settled_ && entries_.back().key < other.entries_.front().key;
        entries_.insert(entries_.end(), std::make_move_iterator(other.entries_.begin()),
                        std::make_move_iterator(other.entries_.end()));
        other.entries_.clear();
    }
    other.settled_ = true;
}

ResultNode::ResultNode(ResultNodePool& home, const TqlObjectHandler& handler,
                       const tql::origin_t& known_origin, bool is_visible)
    : pool(home),
      class_number(handler.class_number()),
      flags(handler.tqlFlags()),
      id(handler.tqlId()),
      version(handler.tqlVersion()),
      origin(known_origin),
      visible(is_visible) {}

void ResultNode::add_tag(uint32_t tag) {
    const auto place = std::lower_bound(tags.begin(), tags.end(), tag);
    if (place == tags.end() || *place != tag) tags.insert(place, tag);
}

void merge(ResultNodePtr& slot, ResultNodePtr node, SelectStatistics& statistics) {
    if (!node) return;
    if (!slot) {
        slot = std::move(node);
        return;
    }
    ++statistics.doublets;
    if (slot->class_number != node->class_number || slot->flags != node->flags ||
        slot->id != node->id)
        throw errors::db_anomaly(fmt::format("Mismatch in splice: ({}, {}, {}) != ({}, {}, {})",
                                             slot->class_number, slot->id.to_string(), slot->flags,
                                             node->class_number, node->id.to_string(),
                                             node->flags));
    for (const uint32_t tag : node->tags) slot->add_tag(tag);
    slot->version = node->version;
    slot->pool.take_values(*slot, node->values);
    slot->visible = slot->visible || node->visible;
    slot->children.append_all(std::move(node->children));
}

void splice(ResultNodePtr& slot, ResultNodePtr node) {
    if (slot)
        slot->children.append_all(std::move(node->children));
    else
        slot = std::move(node);
}

void settle(ResultNode& node, SelectStatistics& statistics) {
    if (node.children.settled_) return;
    std::vector<ResultNode*> unsettled{&node};
    while (!unsettled.empty()) {
        ResultChildren& children = unsettled.back()->children;
        unsettled.pop_back();
        auto& entries = children.entries_;
        std::stable_sort(entries.begin(), entries.end(),
                         [](const auto& a, const auto& b) { return a.key < b.key; });
        size_t kept = 0;
        for (size_t next = 1; next < entries.size(); ++next) {
            if (entries[kept].key == entries[next].key)
                merge(entries[kept].node, std::move(entries[next].node), statistics);
            else if (++kept != next)
                entries[kept] = std::move(entries[next]);
        }
        entries.erase(entries.begin() + static_cast<ptrdiff_t>(kept) + 1, entries.end());
        children.settled_ = true;
        for (auto& entry : entries)
            if (!entry.node->children.settled_) unsettled.push_back(entry.node.get());
    }
}

}  // namespace tqlengine
