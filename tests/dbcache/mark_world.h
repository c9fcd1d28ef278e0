// A store whose classes carry marks on the way and at the end, and the lists as they stand in it,
// read back without the code that keeps them.
#pragma once

#include <fmt/format.h>
#include <map>
#include <string>
#include <vector>

#include "dbcache/mark_index.h"
#include "dbcache/special_kinds.h"
#include "support/test_store.h"
#include "test_classes.h"

namespace dbcache_test {

// clang-format off
inline constexpr dbcache::PropertyRow kWayRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::label, .kind = dbcache::kind_t::string, .flags = dbcache::N},
    {.number = prop::activeMark, .kind = dbcache::kind_t::mark},
    {.number = prop::inheritsMark, .kind = dbcache::kind_t::mark},
};
inline constexpr dbcache::PropertyRow kMarkedRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K | dbcache::X},
    {.number = prop::label, .kind = dbcache::kind_t::string, .flags = dbcache::N | dbcache::X},
    {.number = prop::active, .kind = dbcache::kind_t::boolean, .flags = dbcache::X},
    {.number = prop::inherits, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::activeMark, .kind = dbcache::kind_t::mark, .member = dbcache::marks_active},
    {.number = prop::inheritsMark, .kind = dbcache::kind_t::mark, .member = dbcache::marks_inheriting},
};
inline constexpr dbcache::PropertyRow kAlwaysRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::active, .kind = dbcache::kind_t::boolean, .initial = true},
    {.number = prop::activeMark, .kind = dbcache::kind_t::mark, .member = dbcache::marks_always},
};
/// A class that knows no mark.
inline constexpr dbcache::PropertyRow kPlainRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::label, .kind = dbcache::kind_t::string, .flags = dbcache::N},
};
inline constexpr dbcache::ChildRow kAnything[] = {
    {cls::Domain, nodetype::Domain},
    {cls::Check, nodetype::AgentCheck},
    {cls::MultiCheck, nodetype::AgentMultiCheck},
    {cls::CheckGroup, nodetype::AgentCheckGroup},
};
// clang-format on

class HookedSchema : public dbcache::TableSchema<dbcache::NodetypeSchema> {
  public:
    HookedSchema(const Hooks& hooks, uint32_t number, uint32_t class_seen,
                 std::span<const dbcache::PropertyRow> rows,
                 std::span<const dbcache::ChildRow> children = kAnything)
        : TableSchema({.nodetype = number,
                       .tql_class = class_seen,
                       .properties = rows,
                       .children = children,
                       .sibling_name = prop::name}),
          hooks_(hooks) {}
    void afterUpdate(dbcache::ObjectHandler& handler, tqlengine::RequestContext&,
                     dbcache::WorkArray&) const override {
        if (hooks_.after_update) hooks_.after_update(handler);
    }
    void afterStore(dbcache::ObjectHandler& handler) const override {
        if (hooks_.after_store) hooks_.after_store(handler);
    }

  private:
    const Hooks& hooks_;
};

/// Domains only lie on the way, checks are members while `active` or `inherits` says so, multi
/// checks always, groups lie on the way without knowing of marks, users have no children.
inline TestStore::Declare marked_classes(const Hooks& hooks) {
    return [&hooks](dbcache::SchemaTable& table) {
        const auto add = [&](auto&&... arguments) {
            table.registerSchema(std::make_unique<HookedSchema>(hooks, arguments...));
        };
        add(nodetype::Domain, cls::Domain, std::span(kWayRows));
        add(nodetype::AgentCheck, cls::Check, std::span(kMarkedRows));
        add(nodetype::AgentMultiCheck, cls::MultiCheck, std::span(kAlwaysRows));
        add(nodetype::AgentCheckGroup, cls::CheckGroup, std::span(kPlainRows));
        add(nodetype::User, cls::User, std::span(kPlainRows), std::span<const dbcache::ChildRow>{});
        table.seal();
    };
}

inline tql::value_t boolean(uint32_t property, bool value) {
    return std::make_unique<tql::property_boolean_t>(property, value);
}

class MarkWorld : public TestStore {
  public:
    explicit MarkWorld(const Hooks& hooks, const Sizes& sizes = {})
        : TestStore(sizes, marked_classes(hooks)) {}

    [[nodiscard]] dbcache::MarkRecord record(const NodeId& id, size_t mark) {
        const dbcache::ObjectHandlerRef handler = store->resolver().find_stored(id);
        return dbcache::read_marks(*store, handler->location())[mark];
    }
    [[nodiscard]] std::vector<NodeId> traverse(uint32_t mark, const NodeId& origin) {
        tqlengine::HandlerList list;
        dbcache::MarkIndex(*store, mark).traverse(list, origin);
        std::vector<NodeId> ids;
        for (const tqlengine::HandlerRef& handler : list)
            ids.push_back(handler->tqlId().to_node_id_lenient());
        return ids;
    }
};

/// What the tree is, kept by hand, and the lists that follow from it: a list is the depth-first
/// order of all objects that are marked or have something listed below them. Children stand in the
/// order in which they entered the list, the last one first.
class MarkModel {
  public:
    static constexpr size_t kMarkCount = dbcache::kMarks.size();
    struct Object {
        NodeId parent;
        std::array<bool, kMarkCount> marked{};
        std::array<std::vector<NodeId>, kMarkCount> listed;
    };

    MarkModel() { objects_[dbcache::kRootId]; }

    [[nodiscard]] const std::map<NodeId, Object>& objects() const { return objects_; }
    [[nodiscard]] bool is_below(NodeId id, const NodeId& above) const {
        while (!id.is_null() && id != above) id = objects_.at(id).parent;
        return id == above;
    }
    [[nodiscard]] size_t depth(NodeId id) const {
        size_t depth = 0;
        for (; !id.is_null(); id = objects_.at(id).parent) ++depth;
        return depth;
    }

    void create(const NodeId& id, const NodeId& parent, bool active, bool inherits) {
        objects_[id].parent = parent;
        set(id, 0, active);
        set(id, 1, inherits);
    }
    void set(const NodeId& id, size_t mark, bool marked) {
        const bool was = in_list(id, mark);
        objects_[id].marked[mark] = marked;
        if (!was && in_list(id, mark)) enter(id, mark);
        if (was && !in_list(id, mark)) leave(id, mark);
    }
    /// With a new value of the first mark.
    void move(const NodeId& id, const NodeId& parent, bool active) {
        for (size_t mark = 0; mark < kMarkCount; ++mark)
            if (in_list(id, mark)) leave(id, mark);
        objects_[id].parent = parent;
        objects_[id].marked[0] = active;
        for (size_t mark = 0; mark < kMarkCount; ++mark)
            if (in_list(id, mark)) enter(id, mark);
    }
    void remove(const NodeId& id) {
        for (size_t mark = 0; mark < kMarkCount; ++mark)
            if (in_list(id, mark)) leave(id, mark);
        std::map<NodeId, Object> left;
        for (const auto& [one, object] : objects_)
            if (!is_below(one, id)) left[one] = object;
        objects_ = std::move(left);
    }

    /// The stretch of `origin` in depth-first order.
    [[nodiscard]] std::vector<NodeId> stretch(const NodeId& origin, size_t mark) const {
        std::vector<NodeId> out;
        if (in_list(origin, mark)) add_stretch(origin, mark, out);
        return out;
    }
    [[nodiscard]] bool in_list(const NodeId& id, size_t mark) const {
        const Object& object = objects_.at(id);
        return object.marked[mark] || !object.listed[mark].empty();
    }

    /// The first difference between the records in the store and what they have to be; empty for
    /// none.
    [[nodiscard]] std::string compare(MarkWorld& world) const {
        for (size_t mark = 0; mark < kMarkCount; ++mark) {
            const std::vector<NodeId> list = stretch(dbcache::kRootId, mark);
            std::map<NodeId, dbcache::MarkRecord> expected;
            for (const auto& [id, object] : objects_) expected[id];
            for (size_t i = 0; i < list.size(); ++i)
                expected[list[i]] =
                    mdb::MarkLinks{.prev = i == 0 ? NodeId{} : list[i - 1],
                                   .next = i + 1 == list.size() ? NodeId{} : list[i + 1],
                                   .last = stretch(list[i], mark).back(),
                                   .marked = objects_.at(list[i]).marked[mark]};
            for (const auto& [id, record] : expected)
                if (const auto found = world.record(id, mark); found != record)
                    return fmt::format("mark {} of {}: {} instead of {}", mark, id, text_of(found),
                                       text_of(record));
        }
        return {};
    }

  private:
    static std::string text_of(const dbcache::MarkRecord& record) {
        if (!record) return "white";
        return fmt::format("{}<{}-{}>{}", record->marked ? "marked " : "", record->prev,
                           record->next, record->last);
    }
    void enter(const NodeId& id, size_t mark) {
        const NodeId parent = objects_[id].parent;
        if (parent.is_null()) return;
        const bool was = in_list(parent, mark);
        std::vector<NodeId>& listed = objects_[parent].listed[mark];
        listed.insert(listed.begin(), id);
        if (!was) enter(parent, mark);
    }
    void leave(const NodeId& id, size_t mark) {
        const NodeId parent = objects_[id].parent;
        if (parent.is_null()) return;
        std::erase(objects_[parent].listed[mark], id);
        if (!in_list(parent, mark)) leave(parent, mark);
    }
    void add_stretch(const NodeId& id, size_t mark, std::vector<NodeId>& out) const {
        out.push_back(id);
        for (const NodeId& child : objects_.at(id).listed[mark]) add_stretch(child, mark, out);
    }

    std::map<NodeId, Object> objects_;
};

}  // namespace dbcache_test
