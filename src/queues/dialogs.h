// Dialogs: a request and its reply as one call. The caller is blocked until the reply is there;
// whatever else arrives meanwhile is kept in order and dispatched later, so that a handler sees the
// world as it left it.
//
// Every dialog may throw: errors::remote_error with the peer's text when the answer is an
// exception, error::EFatal when the peer ended. It ends the process by a fatal assertion when there
// is no queue (null) or the answer is of another class than expected.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "queues/childqueue.h"
#include "queues/event.h"
#include "queues/records/control.h"
#include "queues/records/tsdb_requests.h"

namespace queues {

/// Sends `request` to its peer under a fresh uid and gives the reply, which is of the number
/// `expected`. If the peer ended, the text of the EFatal is "Peer ", its name in capitals, "
/// returned EOS when waiting for " and `awaited`.
[[nodiscard]] std::unique_ptr<event> ask(childqueue* queue, event& request, event_t expected,
                                         std::string_view peer_name, std::string_view awaited);

/// The configuration, from the main process.
[[nodiscard]] control::Server_Configuration_Fields server_configuration(childqueue* queue);
/// The named values that the main process keeps across restarts.
[[nodiscard]] control::Server_Variable_Fields variable_fields(childqueue* queue);

/// The store of time series: makes a series and gives its index.
[[nodiscard]] std::uint32_t create_time_series(childqueue* queue,
                                               const tsdb::time_series_layout_t& layout);
void delete_time_series(childqueue* queue, std::uint32_t index);
[[nodiscard]] tsdb::time_series_layout_t describe_time_series(childqueue* queue,
                                                              std::uint32_t index);
[[nodiscard]] tsdb::Return_Get_Data_Data get_data(childqueue* queue,
                                                  const tsdb::Get_Data_Data& wanted);
/// Seconds since the epoch of the oldest record of all series.
[[nodiscard]] std::int64_t find_oldest_record(childqueue* queue);

}  // namespace queues
