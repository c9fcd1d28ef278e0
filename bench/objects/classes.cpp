#include "objects/classes.h"

#include <memory>

#include "dbcache/class_table.h"
#include "dbcache/object_handler.h"
#include "dbcache/special_kinds.h"
#include "mdb/property_types.h"
#include "tql/names.h"

namespace bench {

namespace {

using dbcache::kind_t;
using dbcache::N;
using dbcache::X;

// clang-format off
constexpr dbcache::PropertyRow kFolderRows[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X},
    {.number = prop::name, .kind = kind_t::string, .flags = dbcache::K},
    {.number = prop::label, .kind = kind_t::string, .flags = N},
    {.number = prop::countAgentChecks, .kind = kind_t::count, .flags = dbcache::R},
    {.number = prop::activeMark, .kind = kind_t::mark},
};
constexpr dbcache::PropertyRow kThingRows[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X},
    {.number = prop::name, .kind = kind_t::string, .flags = dbcache::K},
    {.number = prop::active, .kind = kind_t::boolean},
};
/// Of the size of a usual object.
constexpr dbcache::PropertyRow kCheckRows[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X},
    {.number = prop::name, .kind = kind_t::string, .flags = dbcache::K},
    {.number = prop::label, .kind = kind_t::string, .flags = N},
    {.number = prop::comment, .kind = kind_t::string, .flags = N},
    {.number = prop::active, .kind = kind_t::boolean},
    {.number = prop::order, .kind = kind_t::u32, .initial = 5},
    {.number = prop::snmpPort, .kind = kind_t::u32, .initial = 161},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::activeMark, .kind = kind_t::mark, .member = dbcache::marks_active},
};
constexpr dbcache::ChildRow kFolderChildren[] = {{cls::Domain, nodetype::Domain},
                                                 {cls::Node, nodetype::Node},
                                                 {cls::Check, nodetype::AgentCheck}};
// clang-format on

class FolderSchema final : public dbcache::TableSchema<dbcache::NodetypeSchema> {
  public:
    FolderSchema()
        : TableSchema({.nodetype = nodetype::Domain,
                       .tql_class = cls::Domain,
                       .properties = kFolderRows,
                       .children = kFolderChildren,
                       .sibling_name = prop::name}) {}
    /// All that comes from below goes on upward.
    void account(const dbcache::SchemaObject&, const dbcache::WorkArray&,
                 dbcache::UseMap&) const override {}
};

class ThingSchema final : public dbcache::TableSchema<dbcache::NodetypeSchema> {
  public:
    ThingSchema()
        : TableSchema({.nodetype = nodetype::Node,
                       .tql_class = cls::Node,
                       .properties = kThingRows,
                       .sibling_name = prop::name}) {}
    void getUse(const dbcache::WorkArray& work, dbcache::UseMap& use) const override {
        const dbcache::work_t& active = work[findProperty(prop::active, dbcache::kAllSubtypes)];
        use.clear();
        if (static_cast<const mdb::PropertyBool&>(*active.prop).value)
            use[prop::countAgentChecks] = 1;
    }
};

}  // namespace

void declare_classes(dbcache::SchemaTable& table) {
    table.registerSchema(std::make_unique<FolderSchema>());
    table.registerSchema(std::make_unique<ThingSchema>());
    table.registerSchema(std::make_unique<dbcache::TableSchema<dbcache::NodetypeSchema>>(
        dbcache::ClassTable{.nodetype = nodetype::AgentCheck,
                            .tql_class = cls::Check,
                            .properties = kCheckRows,
                            .sibling_name = prop::name}));
    table.seal();
}

}  // namespace bench
