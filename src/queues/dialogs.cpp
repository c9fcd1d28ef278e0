#include "queues/dialogs.h"

#include <fmt/format.h>
#include <utility>

namespace queues {

namespace {

constexpr std::string_view kMain = "MAIN";
constexpr std::string_view kTsdb = "TSDB";

/// One dialog whose request and reply the catalogue knows.
template <event_t Request, event_t Reply>
record_t<Reply> dialog(childqueue* queue, queue_t peer, record_t<Request> wanted,
                       std::string_view peer_name, std::string_view awaited) {
    devent<Request> request(peer, kNoReply, std::move(wanted));
    const std::unique_ptr<event> reply = ask(queue, request, Reply, peer_name, awaited);
    return std::move(data<Reply>(*reply));
}

}  // namespace

std::unique_ptr<event> ask(childqueue* queue, event& request, event_t expected,
                           std::string_view peer_name, std::string_view awaited) {
    error::check(queue != nullptr, "No cqueue for qdialog");
    request.uid = queue->new_uid();
    queue->send(request);
    std::unique_ptr<event> reply = queue->await(request.uid, request.peer);
    if (!reply)
        throw error::EFatal(
            fmt::format("Peer {} returned EOS when waiting for {}", peer_name, awaited));
    if (reply->exception && reply->number() == MESSAGE_EXCEPTION)
        throw errors::remote_error(static_cast<const exevent&>(*reply).text);
    error::check(reply->number() == expected, "Dialog to {}, sent {} expected {} got {} uid={}",
                 queue_name(request.peer), event_name(&request), event_name(expected),
                 event_name(reply.get()), request.uid);
    return reply;
}

control::Server_Configuration_Fields server_configuration(childqueue* queue) {
    return dialog<REQUEST_SERVER_CONFIGURATION, SERVER_CONFIGURATION>(
        queue, queue_t::main, 0, kMain, "control::Server_Configuration");
}

control::Server_Variable_Fields variable_fields(childqueue* queue) {
    return dialog<REQUEST_SERVER_VARIABLE_FIELDS, RETURN_SERVER_VARIABLE_FIELDS>(
        queue, queue_t::main, 0, kMain, "control::Return_Server_Variable_Fields");
}

std::uint32_t create_time_series(childqueue* queue, const tsdb::time_series_layout_t& layout) {
    return dialog<CREATE_TIMESERIES, RETURN_CREATE_TIMESERIES>(queue, queue_t::tsdb, layout, kTsdb,
                                                               "tsdb::Return_Create_TimeSeries");
}

void delete_time_series(childqueue* queue, std::uint32_t index) {
    dialog<DELETE_TIMESERIES, RETURN_DELETE_TIMESERIES>(queue, queue_t::tsdb, index, kTsdb,
                                                        "tsdb::Return_Delete_TimeSeries");
}

tsdb::time_series_layout_t describe_time_series(childqueue* queue, std::uint32_t index) {
    return dialog<DESCRIBE_TIMESERIES, RETURN_DESCRIBE_TIMESERIES>(
        queue, queue_t::tsdb, index, kTsdb, "tsdb::Return_Describe_TimeSeries");
}

tsdb::Return_Get_Data_Data get_data(childqueue* queue, const tsdb::Get_Data_Data& wanted) {
    return dialog<GET_DATA, RETURN_GET_DATA>(queue, queue_t::tsdb, wanted, kTsdb,
                                             "tsdb::Return_Get_Data");
}

std::int64_t find_oldest_record(childqueue* queue) {
    return dialog<FIND_OLDEST_RECORD, RETURN_FIND_OLDEST_RECORD>(queue, queue_t::tsdb, 0, kTsdb,
                                                                 "tsdb::Return_Find_Oldest_Record");
}

}  // namespace queues
