#include "dbcache/schema/declare_all.h"

#include <memory>

#include "dbcache/schema/agent_check_schema.h"
#include "dbcache/schema/agent_config.h"
#include "dbcache/schema/alert_schemas.h"
#include "dbcache/schema/check_part_schemas.h"
#include "dbcache/schema/cluster_schemas.h"
#include "dbcache/schema/derived_check_schemas.h"
#include "dbcache/schema/esxi_check_schema.h"
#include "dbcache/schema/forecast_schemas.h"
#include "dbcache/schema/grid_schemas.h"
#include "dbcache/schema/mib_schemas.h"
#include "dbcache/schema/net_check_schema.h"
#include "dbcache/schema/node_class_schemas.h"
#include "dbcache/schema/plan_schemas.h"
#include "dbcache/schema/report_schemas.h"
#include "dbcache/schema/scan_schemas.h"
#include "dbcache/schema/snmp_check_schema.h"
#include "dbcache/schema/tree_schemas.h"
#include "dbcache/schema/user_schemas.h"
#include "dbcache/schema_table.h"

namespace dbcache::schema {

namespace {

template <class... Schemas>
void register_all(SchemaTable& table) {
    (table.registerSchema(std::make_unique<Schemas>()), ...);
}

}  // namespace

void declare_all(SchemaTable& table) {
    register_all<DomainSchema, NodeSchema, NodeInfoGroupSchema, NodeInfoLineSchema,
                 NodeAgentStatusSchema>(table);
    register_all<NetCheckSchema, CustomParameterSchema, AgentCheckSchema, AgentCheckGroupSchema,
                 SnmpCheckSchema, SnmpCheckGroupSchema, EsxiCheckSchema, EsxiCheckGroupSchema,
                 EsxiRootCheckGroupSchema>(table);
    register_all<CheckAccumulationSchema, MultiCheckSchema, AgentMultiCheckSchema,
                 NetMultiCheckSchema, SnmpMultiCheckSchema, EsxiMultiCheckSchema, SeriesSchema,
                 SumExpressionSchema, CheckExpressionSchema, MultiCheckExpressionSchema>(table);
    register_all<LogCheckRuleSchema, LogCheckRuleCommentSchema, ActionConnectionSchema, TagSchema,
                 EnumCheckTagRuleSchema, TagRuleMatchSchema>(table);
    register_all<MibObjectSchema, MibModuleSchema, MibModuleObjectSchema, MibModuleTypeSchema,
                 MibTypeEnumSchema>(table);
    register_all<ClusterConfigSchema, ClusterServerConfigSchema, CustomAlertPathConfigSchema>(
        table);
    declare_users(table);
    declare_alerts(table);
    declare_plans(table);
    declare_reports(table);
    declare_forecasts(table);
    declare_grid(table);
    declare_scans(table);
    declare_node_classes(table);
    table.seal();
}

}  // namespace dbcache::schema
