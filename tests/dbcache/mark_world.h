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

/// Domains only lie on the way, checks are members while `active` or `inherits` says so, multi
/// checks always, groups lie on the way without knowing of marks, users have no children.
inline TestStore::Declare marked_classes(const Hooks& hooks) {
    return [&hooks](dbcache::SchemaTable& table) {
        const auto add = [&](uint32_t number, uint32_t class_seen,
                             std::span<const dbcache::PropertyRow> rows,
                             std::span<const dbcache::ChildRow> children = kAnything) {
            table.registerSchema(
                std::make_unique<HookedSchema>(dbcache::ClassTable{.nodetype = number,
                                                                   .tql_class = class_seen,
                                                                   .properties = rows,
                                                                   .children = children,
                                                                   .sibling_name = prop::name},
                                               hooks));
        };
        add(nodetype::Domain, cls::Domain, kWayRows);
        add(nodetype::AgentCheck, cls::Check, kMarkedRows);
        add(nodetype::AgentMultiCheck, cls::MultiCheck, kAlwaysRows);
        add(nodetype::AgentCheckGroup, cls::CheckGroup, kPlainRows);
        add(nodetype::User, cls::User, kPlainRows, {});
        table.seal();
    };
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

}  // namespace dbcache_test
