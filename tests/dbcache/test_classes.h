// Classes of the tests' own: folders that inherit, whose hooks do what a test says, and leaves in a
// group.
#pragma once

#include <functional>
#include <memory>

#include "dbcache/class_table.h"
#include "dbcache/object_handler.h"
#include "dbcache/schema_table.h"
#include "dbcache/special_kinds.h"
#include "tql/names.h"

namespace dbcache_test {

/// What the hooks of a class do; nothing unless a test says so.
struct Hooks {
    std::function<void(dbcache::ObjectHandler&)> after_update, after_store, before_delete;
};

// clang-format off
inline constexpr uint32_t kFolderOnly[] = {cls::Domain};
inline constexpr dbcache::PropertyRow kFolderRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K | dbcache::X},
    {.number = prop::inherits, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X, .classes = kFolderOnly},
    {.number = prop::inheritsMark, .kind = dbcache::kind_t::mark, .member = dbcache::marks_inheriting},
    {.number = prop::label, .kind = dbcache::kind_t::string, .flags = dbcache::N},
    {.number = prop::order, .kind = dbcache::kind_t::u32, .initial = 5},
    {.number = prop::alertGroup, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X, .classes = kFolderOnly, .own_domains_only = true},
    {.number = prop::resetScore, .kind = dbcache::kind_t::action},
    {.number = prop::type, .kind = dbcache::kind_t::u32, .flags = dbcache::C | dbcache::X, .initial = 1},
};
inline constexpr dbcache::PropertyRow kLeafRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::active, .kind = dbcache::kind_t::boolean},
};
inline constexpr dbcache::ChildRow kFolderChildren[] = {{cls::Domain, nodetype::Domain}};
inline constexpr dbcache::ChildRow kLeaves[] = {{cls::Node, nodetype::Node}};
inline constexpr dbcache::GroupRow kGroups[] = {{0, cls::CheckGroup, kLeaves, "leaves", "Leaves", "Leaves of "}};
// clang-format on

/// A class whose hooks do what the test says.
class HookedSchema : public dbcache::TableSchema<dbcache::NodetypeSchema> {
  public:
    HookedSchema(const dbcache::ClassTable& table, const Hooks& hooks)
        : TableSchema(table), hooks_(hooks) {}
    void afterUpdate(dbcache::ObjectHandler& handler, tqlengine::RequestContext&,
                     dbcache::WorkArray&) const override {
        if (hooks_.after_update) hooks_.after_update(handler);
    }
    void afterStore(dbcache::ObjectHandler& handler) const override {
        if (hooks_.after_store) hooks_.after_store(handler);
    }
    void beforeDelete(dbcache::ObjectHandler& handler) const override {
        if (hooks_.before_delete) hooks_.before_delete(handler);
    }

  private:
    const Hooks& hooks_;
};

class FolderSchema : public HookedSchema {
  public:
    explicit FolderSchema(const Hooks& hooks)
        : HookedSchema({.nodetype = nodetype::Domain,
                        .tql_class = cls::Domain,
                        .properties = kFolderRows,
                        .children = kFolderChildren,
                        .groups = kGroups,
                        .sibling_name = prop::name},
                       hooks) {}
};

/// `hooks` must outlive the table.
inline std::function<void(dbcache::SchemaTable&)> test_classes(const Hooks& hooks) {
    return [&hooks](dbcache::SchemaTable& table) {
        table.registerSchema(std::make_unique<FolderSchema>(hooks));
        table.registerSchema(std::make_unique<dbcache::TableSchema<dbcache::NodetypeSchema>>(
            dbcache::ClassTable{.nodetype = nodetype::Node,
                                .tql_class = cls::Node,
                                .properties = kLeafRows,
                                .sibling_name = prop::name}));
        table.seal();
    };
}

}  // namespace dbcache_test
