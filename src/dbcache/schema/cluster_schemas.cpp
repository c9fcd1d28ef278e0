#include "dbcache/schema/cluster_schemas.h"

#include "tql/names.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

constexpr uint32_t kClusterOrigin = 34;

constexpr ChildRow kClusterConfigChildren[] = {
    {cls::ClusterServerConfig, nodetype::ClusterServerConfig},
    {cls::CustomAlertPathConfig, nodetype::CustomAlertPathConfig},
};

// The one server is made at start with no values given, so its number has one from the beginning.
constexpr PropertyRow kClusterServerConfigRows[] = {
    {.number = prop::name, .kind = kind_t::string},
    {.number = prop::serverNumber, .kind = kind_t::u32, .flags = K, .initial = 0},
};

constexpr PropertyRow kCustomAlertPathConfigRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::commandTemplate, .kind = kind_t::string},
};

}  // namespace

ClusterConfigSchema::ClusterConfigSchema()
    : TableSchema({.nodetype = nodetype::ClusterConfig,
                   .tql_class = cls::ClusterConfig,
                   .origin_type = kClusterOrigin,
                   .children = kClusterConfigChildren}) {}

void ClusterConfigSchema::encodeSpecials(const SchemaObject& /*object*/,
                                         const PropertyChain& /*chain*/,
                                         const tql::pattern_t& pattern,
                                         tql::property_map_t& out) const {
    for (const uint32_t number : {prop::treeLabel, prop::longLabel})
        if (pattern.wants(number))
            tql::add<tql::property_string_t>(out, number, "Cluster Config", kComputed);
}

ClusterServerConfigSchema::ClusterServerConfigSchema()
    : TableSchema({.nodetype = nodetype::ClusterServerConfig,
                   .tql_class = cls::ClusterServerConfig,
                   .origin_type = kClusterOrigin,
                   .properties = kClusterServerConfigRows}) {}

CustomAlertPathConfigSchema::CustomAlertPathConfigSchema()
    : TableSchema({.nodetype = nodetype::CustomAlertPathConfig,
                   .tql_class = cls::CustomAlertPathConfig,
                   .origin_type = kClusterOrigin,
                   .properties = kCustomAlertPathConfigRows,
                   .sibling_name = prop::name,
                   .suggestion = {"template", "New type of Custom AlertPath"}}) {}

}  // namespace dbcache
