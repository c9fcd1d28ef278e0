#include "mdb/verify_parents.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "mdb/detail/index_keys.h"

namespace mdb {

namespace {

class ParentCheck final : public ObjectCheck {
  public:
    explicit ParentCheck(std::function<bool(const NodeId&)> outside)
        : outside_(std::move(outside)) {}

    void see(const dobj& object, FaultReport&) override {
        const auto keys = detail::read_object_keys(object);
        if (!keys[node_id_index]) return;
        objects_.push_back({*keys[node_id_index], keys[parent_id_index].value_or(NodeId{}),
                            object.handle(), keys[parent_id_index].has_value()});
    }

    void finish(FaultReport& report) override {
        std::sort(objects_.begin(), objects_.end(),
                  [](const Entry& a, const Entry& b) { return a.id < b.id; });
        for (const Entry& entry : objects_)
            if (entry.has_parent && !outside_(entry.parent) && find(entry.parent) == nullptr)
                report.add("P1", entry.handle.block, entry.handle.offset,
                           "object " + entry.id.to_string() + " has parent " +
                               entry.parent.to_string() + ", which is no object");
        for (Entry& entry : objects_) follow(entry, report);
    }

  private:
    enum class state_t : uint8_t { unseen, on_the_way, done };
    struct Entry {
        NodeId id;
        NodeId parent;
        block_handle_t handle;
        bool has_parent;
        state_t state = state_t::unseen;
    };

    Entry* find(const NodeId& id) {
        const auto found = std::lower_bound(
            objects_.begin(), objects_.end(), id,
            [](const Entry& entry, const NodeId& wanted) { return entry.id < wanted; });
        return found == objects_.end() || found->id != id ? nullptr : &*found;
    }

    /// The next one up, none where the way ends.
    Entry* above(const Entry& entry) {
        return entry.has_parent && !outside_(entry.parent) ? find(entry.parent) : nullptr;
    }

    void follow(Entry& from, FaultReport& report) {
        Entry* at = &from;
        for (; at != nullptr && at->state == state_t::unseen; at = above(*at))
            at->state = state_t::on_the_way;
        if (at != nullptr && at->state == state_t::on_the_way)
            report.add("P2", at->handle.block, at->handle.offset,
                       "object " + at->id.to_string() + " is its own ancestor");
        for (at = &from; at != nullptr && at->state == state_t::on_the_way; at = above(*at))
            at->state = state_t::done;
    }

    std::function<bool(const NodeId&)> outside_;
    std::vector<Entry> objects_;
};

}  // namespace

std::unique_ptr<ObjectCheck> make_parent_check(std::function<bool(const NodeId&)> outside) {
    return std::make_unique<ParentCheck>(std::move(outside));
}

}  // namespace mdb
