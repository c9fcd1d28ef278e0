// The query and write requests, from the record that came in to the record that goes out. Each
// takes what the event carried and a context made for the event, and gives the data of the answer;
// receiving and sending events is the caller's business.
//
// A failed request is an answer, not an exception: errors::tql gives its code as the status and its
// text, with any added details, as details of type 3; errors::db_anomaly gives code 14 and its
// text. Whatever else is thrown passes through: it isn't the request's fault.
#pragma once

#include <set>
#include <string_view>

#include "queues/records/dbms_tql.h"
#include "tqlengine/answers.h"
#include "tqlengine/engine.h"
#include "tqlengine/request_context.h"

namespace tqlengine {

/// The type of a detail that carries the text of a failure.
inline constexpr uint32_t kDetailError = 3;

/// Bits of Tql_Select_Data::flags: the asker subscribes; each answer is to be acknowledged; changes
/// are told as patches.
inline constexpr uint32_t kSelectSubscribe = 1;
inline constexpr uint32_t kSelectAcknowledge = 4;
inline constexpr uint32_t kSelectPatchable = 16;

/// What a select took, for the log; filled by process_select() and finished by log_select().
struct SelectReport {
    SelectStatistics statistics;
    uint64_t results = 0;  ///< nodes in all trees
    uint64_t start_us = 0;
    uint64_t evaluated_us = 0;
    uint64_t prepared_us = 0;
};

/// Event 82: gives what event 83 carries. The answer must not outlive the engine. An empty pattern
/// gives no results. With a `subscription` other than 0 the engine watches the pattern from now on;
/// 0 selects once, whatever the flags say.
SelectAnswer process_select(const dbms::Tql_Select_Data& request, RequestContext& context,
                            SelectReport& report, uint32_t subscription = 0);
/// To be called when the answer has been sent: logs a select that took more than 10 ms at level
/// debug, and one of more than 3 s at level warning.
void log_select(const dbms::Tql_Select_Data& request, const RequestContext& context,
                const SelectReport& report);

/// The tree of event 84 for the object `id`, under the subscription made by `request`; none when
/// the subscriber is to drop the object (event 85). Throws errors::tql and errors::stdanomaly.
ResultNodePtr process_patch(const tql::id_t& id, const dbms::Tql_Select_Data& request,
                            RequestContext& context);
/// To be called when a patch has been made: logs one that took more than 10 ms at level debug, and
/// one of more than 3 s at level warning. `caused_by` names the event that changed the object.
void log_patch(const tql::id_t& id, const dbms::Tql_Select_Data& request,
               const RequestContext& context, uint64_t elapsed_us, std::string_view caused_by);

/// Event 86, answered by 87. `new_id` of the request must be filled.
dbms::Return_Tql_Create_Data process_create(const dbms::Tql_Create_Data& request,
                                            RequestContext& context);
/// Event 88, answered by 89.
dbms::Return_Tql_Update_Data process_update(const dbms::Tql_Update_Data& request,
                                            RequestContext& context);
/// Event 90, answered by 91.
dbms::Return_Tql_Delete_Data process_delete(const dbms::Tql_Delete_Data& request,
                                            RequestContext& context);

/// Event 76, answered by 77: the names of all classes in the order of their numbers.
dbms::Return_Tql_Class_Names_Data process_class_names();
/// Event 78, answered by 79: number and name of every property, in table order.
dbms::Return_Tql_Property_Names_Data process_property_names();
/// Event 80, answered by 81: the numbers of the classes whose objects can be moved.
std::set<uint32_t> process_reparentable_classes(const RequestContext& context);

}  // namespace tqlengine
