#include "query/classes.h"

#include <memory>

#include "dbcache/class_table.h"
#include "dbcache/special_kinds.h"
#include "tql/names.h"

namespace bench {

namespace {

using dbcache::kind_t;
using dbcache::N;
using dbcache::X;

// clang-format off
constexpr dbcache::PropertyRow kRows[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X},
    {.number = prop::name, .kind = kind_t::string, .flags = dbcache::K},
    {.number = prop::label, .kind = kind_t::string, .flags = N},
    {.number = prop::comment, .kind = kind_t::string, .flags = N},
    {.number = prop::active, .kind = kind_t::boolean},
    {.number = prop::order, .kind = kind_t::u32, .initial = 5},
    {.number = prop::snmpPort, .kind = kind_t::u32, .initial = 161},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::activeMark, .kind = kind_t::mark},
};
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
constexpr dbcache::ChildRow kDomainChildren[] = {{cls::Domain, nodetype::Domain},
                                                 {cls::Node, nodetype::Node}};
constexpr dbcache::ChildRow kNodeChildren[] = {{cls::Check, nodetype::AgentCheck}};
// clang-format on

void declare(dbcache::SchemaTable& table, const dbcache::ClassTable& made) {
    table.registerSchema(std::make_unique<dbcache::TableSchema<dbcache::NodetypeSchema>>(made));
}

}  // namespace

void declare_query_classes(dbcache::SchemaTable& table) {
    declare(table, {.nodetype = nodetype::Domain,
                    .tql_class = cls::Domain,
                    .properties = kRows,
                    .children = kDomainChildren,
                    .sibling_name = prop::name});
    declare(table, {.nodetype = nodetype::Node,
                    .tql_class = cls::Node,
                    .properties = kRows,
                    .children = kNodeChildren,
                    .sibling_name = prop::name});
    declare(table, {.nodetype = nodetype::AgentCheck,
                    .tql_class = cls::Check,
                    .properties = kCheckRows,
                    .sibling_name = prop::name});
    table.seal();
}

}  // namespace bench
