// The catalogue: which record each event carries.
//
// One table, number to record type. The names of the events, the readers and writers of their
// records and the types of devent all come from it, so that a new event is one enumerator and one
// row. The records are only declared here; their fields stand in queues/records, one header for
// each family.
#pragma once

#include <cstdint>
#include <list>
#include <set>
#include <string>

#include "queues/event_types.h"
#include "tql/id.h"

namespace control {
struct Sys_Exit_Data;
struct Init_Ok_Data;
struct Log_Request_Data;
struct Server_Configuration_Fields;
struct Server_Variable_Fields;
struct Get_Pseudo_Random_Data;
struct Get_Metric_Data;
struct Return_Metric_Timing_Data;
struct Metric_Group;
struct Get_Metric_Type_Data;
struct Metric;
struct Set_Log_Level_Data;
}  // namespace control
namespace tsdb {
struct time_series_layout_t;
struct Get_Data_Data;
struct Return_Get_Data_Data;
struct Put_Data_Data;
struct Truncate_Old_Data_Data;
struct Recovery_Merge_TimeSeries_Data;
}  // namespace tsdb
namespace dbms {
struct Data_RemCheck_Data;
struct Data_SnmpCheck_Continuous_Data;
struct Data_SnmpCheck_Enum_Data;
struct Data_SnmpCheck_Uptime_Data;
struct Data_EsxiCheck_Data;
struct Data_DomainExport_State_Data;
struct Put_Check_State_Data;
struct Put_IncidentLog_Data;
struct Return_Host_Configured_State_Data;
struct Set_Host_Reconfigured_Data;
struct Set_Host_Rescan_Data;
struct Checkin_Start_Data;
struct Checkin_Complete_Data;
struct Checkin_Abort_Data;
struct Data_AgentCheck_Data;
struct Return_Data_AgentCheck_Data;
struct Host_Rebooted_Data;
struct Execute_Remedy_Data;
struct Late_Checkin_Data;
struct Audit_Event_Data;
struct Return_Tql_Class_Names_Data;
struct Return_Tql_Property_Names_Data;
struct Tql_Select_Data;
struct Return_Tql_Select_Data;
struct Return_Tql_Select_Patch_Data;
struct Return_Tql_Select_Delete_Patch_Data;
struct Tql_Create_Data;
struct Return_Tql_Create_Data;
struct Tql_Update_Data;
struct Return_Tql_Update_Data;
struct Tql_Delete_Data;
struct Return_Tql_Delete_Data;
struct Tql_Simple_Subscribe_Data;
struct Return_Tql_Simple_Subscribe_Data;
struct NodeClass_Translate_Data;
struct Return_NodeClass_Translate_Data;
struct User_Acknowledge_Alert_Data;
struct User_Reset_Score_Data;
struct TSDB_Get_Data_Data;
struct Return_TSDB_Get_Data_Data;
struct TSDB_Put_Data_Data;
struct Return_TSDB_Put_Data_Data;
struct TSDB_Merge_Data_Data;
struct Return_TSDB_Merge_Data_Data;
struct TSDB_Get_Latest_Data_Record_Data;
struct Return_TSDB_Get_Latest_Data_Record_Data;
struct TSDB_Append_Data_Record_Data;
struct Return_TSDB_Append_Data_Record_Data;
struct TSDB_Append_Data_Data;
struct Return_TSDB_Append_Data_Data;
struct TSDB_Truncate_Old_Data_Data;
struct Return_TSDB_Truncate_Old_Data_Data;
struct Tql_Acknowledge_Data;
struct Tql_Forget_Data;
struct Return_Tql_Forget_Data;
struct Update_NetChecks_Data;
struct Return_NetCheck_Info_Data;
struct Get_First_ID_Data;
struct Return_ID_Data;
struct Get_Next_ID_Data;
struct Get_First_MasterID_Data;
struct Return_MasterID_Data;
struct Get_Next_MasterID_Data;
struct Get_Trace_Data;
struct Return_Trace_Data;
struct Get_Deleted_Data;
struct Get_Deleted_MasterId_Data;
struct Return_Deleted_Data;
struct Retire_Deleted_Data;
struct Add_Candidate_Node_Data;
}  // namespace dbms
namespace scheduler {
struct Schedule_Event_Absolute_Data;
struct Schedule_Event_Relative_Data;
}  // namespace scheduler
namespace remcheck {
struct Remote_Check_Data;
struct Check_Timeout_Data;
struct Icmp_Request_Data;
struct Icmp_Echo_Reply_Data;
struct remcheck_conf;
}  // namespace remcheck
namespace services {
struct remcheck_stat;
}  // namespace services
namespace socketio {
struct ReqSharedKeyGen_Data;
struct SharedKeyReply_Data;
struct ReqFinalKeyGen_Data;
struct FinalKeyReply_Data;
struct GridLinkInitiate_Data;
struct GridLinkStatusChange_Data;
struct GridLinkShutdown_Data;
struct GridLinkKeepAlive_Data;
struct GridLinkActivity_Data;
struct GridSystemShutdown_Data;
struct Return_GridSystemShutdown_Data;
struct RoutingTableAdd_NHL_Data;
struct RoutingTableRemove_NHL_Data;
struct RoutingTableAdd_CM_Data;
struct RoutingTableRemove_CM_Data;
struct RPC_ClientCallRequest_Data;
struct RPC_ClientCallReply_Data;
struct RPC_ClientCallError_Data;
struct RPC_HandlerRegister_Data;
struct RPC_HandlerUnregister_Data;
struct RPC_ProcedureCall_Data;
struct RPC_ProcedureCallReply_Data;
struct RPC_ProcedureCallFailed_Data;
struct RPC_MessageForward_Data;
}  // namespace socketio
namespace alert {
struct Forecast_Warning_Data;
struct Generic_Notify_Data;
struct Notify_AlertGroup_Data;
struct Object_Status_Change_Data;
struct Pager_Page_Data;
struct Pager_Status_Data;
struct Mailer_Mail_Data;
struct Mailer_Status_Data;
struct Push_Notification_Data;
struct Push_Status_Data;
}  // namespace alert
namespace snmp {
struct Esxi_Probe_Data;
struct Esxi_Probe_Result_Data;
struct Snmp_Check_Data;
struct Snmp_Timeout_Data;
struct Snmp_Oid_Probe_Data;
struct Snmp_Probe_Timeout_Data;
struct Snmp_Probe_Result_Data;
}  // namespace snmp
namespace reporter {
struct Scheduled_Report_Generation_Data;
}  // namespace reporter
namespace alarms {
struct Immediate_State_Data;
struct Immediate_States_Data;
struct Checkin_Data;
struct Acknowledge_Alert_Data;
struct Reset_Score_Data;
struct Set_Status_Data;
struct Alarm_Notify_Data;
}  // namespace alarms
namespace scan {
struct Scan_Request_Data;
struct Scan_Result_Data;
}  // namespace scan
namespace skiogrid {
struct GridCleartextSend_Data;
struct GridNSIncoming_Data;
struct GridSetEndpointSecret_Data;
struct GridClearEndpointSecret_Data;
struct GridSendMessage_Data;
struct GridReceivedMessage_Data;
}  // namespace skiogrid
namespace router {
struct SubscribeEpsecChange_Data;
struct EpsecChangeNotification_Data;
}  // namespace router

namespace queues {

/// One line of the catalogue.
template <event_t N, class Record>
struct row {
    static constexpr event_t number = N;
    using record = Record;
};

template <class... Rows>
struct rows : Rows... {};

// clang-format off
using catalogue = rows<
    row<DAEMONIZE_SYSTEM, std::int32_t>,
    row<SYS_EXIT, control::Sys_Exit_Data>,
    row<INIT_OK, control::Init_Ok_Data>,
    row<SYSTEM_LOG_REQUEST, control::Log_Request_Data>,
    row<SERVER_CONFIGURATION, control::Server_Configuration_Fields>,
    row<REQUEST_SERVER_CONFIGURATION, std::int32_t>,
    row<REQUEST_SERVER_VARIABLE_FIELDS, std::int32_t>,
    row<RETURN_SERVER_VARIABLE_FIELDS, control::Server_Variable_Fields>,
    row<STORE_SERVER_VARIABLE_FIELDS, control::Server_Variable_Fields>,
    row<REQUEST_SPAWN_PROCESS, queue_t>,
    row<GET_PURE_ENTROPY, std::int32_t>,
    row<RETURN_PURE_ENTROPY, std::string>,
    row<GET_PSEUDO_RANDOM, control::Get_Pseudo_Random_Data>,
    row<RETURN_PSEUDO_RANDOM, std::string>,
    row<GET_METRIC, control::Get_Metric_Data>,
    row<RETURN_METRIC_ERROR, std::string>,
    row<RETURN_METRIC_UINT64, std::uint64_t>,
    row<RETURN_METRIC_DOUBLE, double>,
    row<RETURN_METRIC_TIMING, control::Return_Metric_Timing_Data>,
    row<LIST_METRICS, std::int32_t>,
    row<RETURN_LIST_METRICS, control::Metric_Group>,
    row<GET_METRIC_TYPE, control::Get_Metric_Type_Data>,
    row<RETURN_GET_METRIC_TYPE, control::Metric>,
    row<SUPPORTS_METRICS, std::int32_t>,
    row<SET_LOG_LEVEL, control::Set_Log_Level_Data>,
    row<CREATE_TIMESERIES, tsdb::time_series_layout_t>,
    row<RETURN_CREATE_TIMESERIES, std::uint32_t>,
    row<DELETE_TIMESERIES, std::uint32_t>,
    row<RETURN_DELETE_TIMESERIES, std::int32_t>,
    row<DESCRIBE_TIMESERIES, std::uint32_t>,
    row<RETURN_DESCRIBE_TIMESERIES, tsdb::time_series_layout_t>,
    row<GET_DATA, tsdb::Get_Data_Data>,
    row<RETURN_GET_DATA, tsdb::Return_Get_Data_Data>,
    row<PUT_DATA, tsdb::Put_Data_Data>,
    row<RETURN_PUT_DATA_ALLOC, std::uint32_t>,
    row<TRUNCATE_OLD_DATA, tsdb::Truncate_Old_Data_Data>,
    row<RETURN_TRUNCATE_OLD_DATA, std::int32_t>,
    row<FIND_OLDEST_RECORD, std::int32_t>,
    row<RETURN_FIND_OLDEST_RECORD, std::int64_t>,
    row<RECOVERY_CHECKSUM_TIMESERIES, std::uint32_t>,
    row<RETURN_RECOVERY_CHECKSUM_TIMESERIES, std::string>,
    row<RECOVERY_EXTRACT_TIMESERIES, std::uint32_t>,
    row<RETURN_RECOVERY_EXTRACT_TIMESERIES, std::string>,
    row<RECOVERY_MERGE_TIMESERIES, tsdb::Recovery_Merge_TimeSeries_Data>,
    row<RETURN_RECOVERY_MERGE_TIMESERIES, std::int32_t>,
    row<REQUEST_RESULT, std::int32_t>,
    row<DATA_REMCHECK, dbms::Data_RemCheck_Data>,
    row<DATA_SNMPCHECK_CONTINUOUS, dbms::Data_SnmpCheck_Continuous_Data>,
    row<DATA_SNMPCHECK_ENUM, dbms::Data_SnmpCheck_Enum_Data>,
    row<DATA_SNMPCHECK_UPTIME, dbms::Data_SnmpCheck_Uptime_Data>,
    row<DATA_ESXICHECK, dbms::Data_EsxiCheck_Data>,
    row<DATA_DOMAINEXPORT_STATE, dbms::Data_DomainExport_State_Data>,
    row<PUT_CHECK_STATE, dbms::Put_Check_State_Data>,
    row<PUT_INCIDENTLOG, dbms::Put_IncidentLog_Data>,
    row<RETURN_HOST_CONFIGURED_STATE, dbms::Return_Host_Configured_State_Data>,
    row<GET_HOST_CONFIGURED_STATE, tql::id_t>,
    row<SET_HOST_RECONFIGURED, dbms::Set_Host_Reconfigured_Data>,
    row<SET_HOST_RESCAN, dbms::Set_Host_Rescan_Data>,
    row<CHECKIN_START, dbms::Checkin_Start_Data>,
    row<RETURN_CHECKIN_START, std::int32_t>,
    row<CHECKIN_COMPLETE, dbms::Checkin_Complete_Data>,
    row<RETURN_CHECKIN_COMPLETE, std::int32_t>,
    row<CHECKIN_ABORT, dbms::Checkin_Abort_Data>,
    row<DATA_AGENTCHECK, dbms::Data_AgentCheck_Data>,
    row<RETURN_DATA_AGENTCHECK, dbms::Return_Data_AgentCheck_Data>,
    row<HOST_REBOOTED, dbms::Host_Rebooted_Data>,
    row<EXECUTE_REMEDY, dbms::Execute_Remedy_Data>,
    row<LATE_CHECKIN, dbms::Late_Checkin_Data>,
    row<GET_LAST_CHECKIN_TIME, tql::id_t>,
    row<RETURN_LAST_CHECKIN_TIME, std::int64_t>,
    row<CLEAR_FIRE_FLAG, std::list<tql::id_t>>,
    row<RESERVED_72, std::int32_t>,
    row<RESERVED_73, std::int32_t>,
    row<RESERVED_74, std::int32_t>,
    row<AUDIT_EVENT, dbms::Audit_Event_Data>,
    row<GET_TQL_CLASS_NAMES, std::int32_t>,
    row<RETURN_TQL_CLASS_NAMES, dbms::Return_Tql_Class_Names_Data>,
    row<GET_TQL_PROPERTY_NAMES, std::int32_t>,
    row<RETURN_TQL_PROPERTY_NAMES, dbms::Return_Tql_Property_Names_Data>,
    row<GET_TQL_REPARENTABLE_CLASSES, std::int32_t>,
    row<RETURN_TQL_REPARENTABLE_CLASSES, std::set<std::uint32_t>>,
    row<TQL_SELECT, dbms::Tql_Select_Data>,
    row<RETURN_TQL_SELECT, dbms::Return_Tql_Select_Data>,
    row<RETURN_TQL_SELECT_PATCH, dbms::Return_Tql_Select_Patch_Data>,
    row<RETURN_TQL_SELECT_DELETE_PATCH, dbms::Return_Tql_Select_Delete_Patch_Data>,
    row<TQL_CREATE, dbms::Tql_Create_Data>,
    row<RETURN_TQL_CREATE, dbms::Return_Tql_Create_Data>,
    row<TQL_UPDATE, dbms::Tql_Update_Data>,
    row<RETURN_TQL_UPDATE, dbms::Return_Tql_Update_Data>,
    row<TQL_DELETE, dbms::Tql_Delete_Data>,
    row<RETURN_TQL_DELETE, dbms::Return_Tql_Delete_Data>,
    row<TQL_SIMPLE_SUBSCRIBE, dbms::Tql_Simple_Subscribe_Data>,
    row<RETURN_TQL_SIMPLE_SUBSCRIBE, dbms::Return_Tql_Simple_Subscribe_Data>,
    row<NODECLASS_TRANSLATE, dbms::NodeClass_Translate_Data>,
    row<RETURN_NODECLASS_TRANSLATE, dbms::Return_NodeClass_Translate_Data>,
    row<USER_ACKNOWLEDGE_ALERT, dbms::User_Acknowledge_Alert_Data>,
    row<USER_RESET_SCORE, dbms::User_Reset_Score_Data>,
    row<TSDB_GET_DATA, dbms::TSDB_Get_Data_Data>,
    row<RETURN_TSDB_GET_DATA, dbms::Return_TSDB_Get_Data_Data>,
    row<TSDB_PUT_DATA, dbms::TSDB_Put_Data_Data>,
    row<RETURN_TSDB_PUT_DATA, dbms::Return_TSDB_Put_Data_Data>,
    row<TSDB_MERGE_DATA, dbms::TSDB_Merge_Data_Data>,
    row<RETURN_TSDB_MERGE_DATA, dbms::Return_TSDB_Merge_Data_Data>,
    row<TSDB_GET_LATEST_DATA_RECORD, dbms::TSDB_Get_Latest_Data_Record_Data>,
    row<RETURN_TSDB_GET_LATEST_DATA_RECORD, dbms::Return_TSDB_Get_Latest_Data_Record_Data>,
    row<TSDB_APPEND_DATA_RECORD, dbms::TSDB_Append_Data_Record_Data>,
    row<RETURN_TSDB_APPEND_DATA_RECORD, dbms::Return_TSDB_Append_Data_Record_Data>,
    row<TSDB_APPEND_DATA, dbms::TSDB_Append_Data_Data>,
    row<RETURN_TSDB_APPEND_DATA, dbms::Return_TSDB_Append_Data_Data>,
    row<TSDB_TRUNCATE_OLD_DATA, dbms::TSDB_Truncate_Old_Data_Data>,
    row<RETURN_TSDB_TRUNCATE_OLD_DATA, dbms::Return_TSDB_Truncate_Old_Data_Data>,
    row<TQL_ACKNOWLEDGE, dbms::Tql_Acknowledge_Data>,
    row<TQL_FORGET, dbms::Tql_Forget_Data>,
    row<RETURN_TQL_FORGET, dbms::Return_Tql_Forget_Data>,
    row<UPDATE_NETCHECKS, dbms::Update_NetChecks_Data>,
    row<GET_NETCHECK_INFO, std::string>,
    row<RETURN_NETCHECK_INFO, dbms::Return_NetCheck_Info_Data>,
    row<GET_FIRST_ID, dbms::Get_First_ID_Data>,
    row<RETURN_ID, dbms::Return_ID_Data>,
    row<GET_NEXT_ID, dbms::Get_Next_ID_Data>,
    row<GET_FIRST_MASTERID, dbms::Get_First_MasterID_Data>,
    row<RETURN_MASTERID, dbms::Return_MasterID_Data>,
    row<GET_NEXT_MASTERID, dbms::Get_Next_MasterID_Data>,
    row<GET_TRACE, dbms::Get_Trace_Data>,
    row<RETURN_TRACE, dbms::Return_Trace_Data>,
    row<GET_DELETED, dbms::Get_Deleted_Data>,
    row<GET_DELETED_MASTERID, dbms::Get_Deleted_MasterId_Data>,
    row<RETURN_DELETED, dbms::Return_Deleted_Data>,
    row<RETIRE_DELETED, dbms::Retire_Deleted_Data>,
    row<ADD_CANDIDATE_NODE, dbms::Add_Candidate_Node_Data>,
    row<SCHEDULE_EVENT_ABSOLUTE, scheduler::Schedule_Event_Absolute_Data>,
    row<SCHEDULE_EVENT_RELATIVE, scheduler::Schedule_Event_Relative_Data>,
    row<REMOTE_CHECK, remcheck::Remote_Check_Data>,
    row<CHECK_TIMEOUT, remcheck::Check_Timeout_Data>,
    row<ICMP_REQUEST, remcheck::Icmp_Request_Data>,
    row<ICMP_ECHO_REPLY, remcheck::Icmp_Echo_Reply_Data>,
    row<CHECK_REQUEST, remcheck::remcheck_conf>,
    row<CHECK_RESULT, services::remcheck_stat>,
    row<SOCKETIO_TIDY_CACHES, std::int32_t>,
    row<REQSHAREDKEYGEN, socketio::ReqSharedKeyGen_Data>,
    row<SHAREDKEYREPLY, socketio::SharedKeyReply_Data>,
    row<REQFINALKEYGEN, socketio::ReqFinalKeyGen_Data>,
    row<FINALKEYREPLY, socketio::FinalKeyReply_Data>,
    row<GRIDLINKINITIATE, socketio::GridLinkInitiate_Data>,
    row<GRIDLINKSTATUSCHANGE, socketio::GridLinkStatusChange_Data>,
    row<GRIDLINKSHUTDOWN, socketio::GridLinkShutdown_Data>,
    row<GRIDLINKKEEPALIVE, socketio::GridLinkKeepAlive_Data>,
    row<GRIDLINKACTIVITY, socketio::GridLinkActivity_Data>,
    row<GRIDSYSTEMSHUTDOWN, socketio::GridSystemShutdown_Data>,
    row<RETURN_GRIDSYSTEMSHUTDOWN, socketio::Return_GridSystemShutdown_Data>,
    row<ROUTINGTABLEADD_NHL, socketio::RoutingTableAdd_NHL_Data>,
    row<ROUTINGTABLEREMOVE_NHL, socketio::RoutingTableRemove_NHL_Data>,
    row<ROUTINGTABLEADD_CM, socketio::RoutingTableAdd_CM_Data>,
    row<ROUTINGTABLEREMOVE_CM, socketio::RoutingTableRemove_CM_Data>,
    row<RPC_CLIENTCALLREQUEST, socketio::RPC_ClientCallRequest_Data>,
    row<RPC_CLIENTCALLREPLY, socketio::RPC_ClientCallReply_Data>,
    row<RPC_CLIENTCALLERROR, socketio::RPC_ClientCallError_Data>,
    row<RPC_HANDLERREGISTER, socketio::RPC_HandlerRegister_Data>,
    row<RPC_HANDLERUNREGISTER, socketio::RPC_HandlerUnregister_Data>,
    row<RPC_PROCEDURECALL, socketio::RPC_ProcedureCall_Data>,
    row<RPC_PROCEDURECALLREPLY, socketio::RPC_ProcedureCallReply_Data>,
    row<RPC_PROCEDURECALLFAILED, socketio::RPC_ProcedureCallFailed_Data>,
    row<RPC_MESSAGEFORWARD, socketio::RPC_MessageForward_Data>,
    row<NOTIFY_TEST_PATH, tql::id_t>,
    row<NOTIFY_UNEXPECTED_DOWNTIME, tql::id_t>,
    row<FORECAST_WARNING, alert::Forecast_Warning_Data>,
    row<GENERIC_NOTIFY, alert::Generic_Notify_Data>,
    row<NOTIFY_ALERTGROUP, alert::Notify_AlertGroup_Data>,
    row<OBJECT_STATUS_CHANGE, alert::Object_Status_Change_Data>,
    row<PAGER_PAGE, alert::Pager_Page_Data>,
    row<PAGER_STATUS, alert::Pager_Status_Data>,
    row<PAGER_EXIT, std::int32_t>,
    row<MAILER_MAIL, alert::Mailer_Mail_Data>,
    row<MAILER_STATUS, alert::Mailer_Status_Data>,
    row<MAILER_EXIT, std::int32_t>,
    row<PUSH_NOTIFICATION, alert::Push_Notification_Data>,
    row<PUSH_STATUS, alert::Push_Status_Data>,
    row<PUSH_EXIT, std::int32_t>,
    row<ESXI_PROBE, snmp::Esxi_Probe_Data>,
    row<ESXI_PROBE_RESULT, snmp::Esxi_Probe_Result_Data>,
    row<SNMP_CHECK, snmp::Snmp_Check_Data>,
    row<SNMP_TIMEOUT, snmp::Snmp_Timeout_Data>,
    row<SNMP_OID_PROBE, snmp::Snmp_Oid_Probe_Data>,
    row<SNMP_PROBE_TIMEOUT, snmp::Snmp_Probe_Timeout_Data>,
    row<SNMP_PROBE_RESULT, snmp::Snmp_Probe_Result_Data>,
    row<SCHEDULED_REPORT_GENERATION, reporter::Scheduled_Report_Generation_Data>,
    row<IMMEDIATE_STATE, alarms::Immediate_State_Data>,
    row<IMMEDIATE_STATES, alarms::Immediate_States_Data>,
    row<CHECKIN, alarms::Checkin_Data>,
    row<ACKNOWLEDGE_ALERT, alarms::Acknowledge_Alert_Data>,
    row<RESET_SCORE, alarms::Reset_Score_Data>,
    row<SET_STATUS, alarms::Set_Status_Data>,
    row<ALARM_NOTIFY, alarms::Alarm_Notify_Data>,
    row<SCAN_REQUEST, scan::Scan_Request_Data>,
    row<SCAN_RESULT, scan::Scan_Result_Data>,
    row<GRIDCLEARTEXTSEND, skiogrid::GridCleartextSend_Data>,
    row<GRIDNSINCOMING, skiogrid::GridNSIncoming_Data>,
    row<GRIDSETENDPOINTSECRET, skiogrid::GridSetEndpointSecret_Data>,
    row<GRIDCLEARENDPOINTSECRET, skiogrid::GridClearEndpointSecret_Data>,
    row<GRIDSENDMESSAGE, skiogrid::GridSendMessage_Data>,
    row<GRIDRECEIVEDMESSAGE, skiogrid::GridReceivedMessage_Data>,
    row<SUBSCRIBEEPSECCHANGE, router::SubscribeEpsecChange_Data>,
    row<EPSECCHANGENOTIFICATION, router::EpsecChangeNotification_Data>>;
// clang-format on

namespace detail {
template <event_t N, class Record>
row<N, Record> find_row(const row<N, Record>*);
}  // namespace detail

/// The record of event N; a number outside the catalogue doesn't compile.
template <event_t N>
using record_t =
    typename decltype(detail::find_row<N>(static_cast<const catalogue*>(nullptr)))::record;

}  // namespace queues
