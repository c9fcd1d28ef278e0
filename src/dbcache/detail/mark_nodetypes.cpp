#include "dbcache/detail/mark_nodetypes.h"

#include <fmt/format.h>

#include "dbcache/stored_tree.h"
#include "error/exception.h"
#include "tql/names.h"

namespace dbcache::detail {

namespace {

mark_role_t active_role(uint32_t type) {
    switch (type) {
        case nodetype::NetCheck:
            return mark_role_t::always_marked;
        case nodetype::AgentCheck:
        case nodetype::SnmpCheck:
        case nodetype::EsxiCheck:
            return mark_role_t::by_value;
        case nodetype::Domain:
        case nodetype::Node:
        case nodetype::AgentCheckGroup:
        case nodetype::SnmpCheckGroup:
        case nodetype::MountPoint:
        case nodetype::EsxiCheckGroup:
        case nodetype::EsxiRootCheckGroup:
            return mark_role_t::on_the_way;
        default:
            return mark_role_t::outside;
    }
}

bool may_inherit(uint32_t type) {
    const auto within = [&](uint32_t first, uint32_t last) {
        return first <= type && type <= last;
    };
    return within(nodetype::AgentCheck, nodetype::SnmpCheckGroup) ||
           within(nodetype::Plan, nodetype::Event) ||
           within(nodetype::NodeClassNodeConfig, nodetype::NodeClassCheckAccumulationConfig) ||
           type == nodetype::Domain || type == nodetype::Node || type == nodetype::LogCheckRule ||
           type == nodetype::NodeClass || type == nodetype::LogCheckRuleComment ||
           type == nodetype::CheckAccumulation || type == nodetype::MountPoint ||
           type == nodetype::EsxiCheck || type == nodetype::EsxiCheckGroup ||
           type == nodetype::EsxiRootCheckGroup || type == nodetype::MonthPlanner;
}

}  // namespace

mark_role_t mark_role(uint32_t mark, uint32_t nodetype) {
    switch (mark) {
        case prop::activeMark:
            return active_role(nodetype);
        case prop::inheritsMark:
            return may_inherit(nodetype) ? mark_role_t::by_value : mark_role_t::outside;
        default:
            throw error::EFatal(fmt::format("Unknown mark index: {}", mark));
    }
}

bool is_marked(uint32_t mark, mark_role_t role, const mdb::dobj& object) {
    if (role != mark_role_t::by_value) return role == mark_role_t::always_marked;
    if (mark == prop::activeMark) return get_value<mdb::PropertyBool>(object, prop::active);
    return find_value<mdb::PropertyNodeId>(object, prop::inherits).has_value();
}

}  // namespace dbcache::detail
