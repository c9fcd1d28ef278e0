// Names and print forms of events and queues.
#include "queues/event.h"

#include <gtest/gtest.h>
#include <sstream>

#include "queues/records/control.h"
#include "queues/records/dbms_tql.h"

namespace queues_test {
namespace {

using namespace queues;

TEST(Names, OfEvents) {
    const std::pair<int, std::string> cases[] = {{0, "INVALID_HEAD"},
                                                 {1, "DAEMONIZE_SYSTEM"},
                                                 {8, "RETURN_SERVER_VARIABLE_FIELDS"},
                                                 {82, "TQL_SELECT"},
                                                 {151, "ROUTINGTABLEADD_NHL"},
                                                 {203, "EPSECCHANGENOTIFICATION"},
                                                 {204, "MESSAGE_EXCEPTION"},
                                                 {205, "INVALID_TAIL"},
                                                 {206, "(event_t)206"},
                                                 {-1, "(event_t)-1"}};
    for (const auto& [number, name] : cases)
        EXPECT_EQ(event_name(static_cast<event_t>(number)), name);
    EXPECT_EQ(event_name(nullptr), "NULL");
    const exevent exception(queue_t::dbms, 1, "x");
    EXPECT_EQ(event_name(&exception), "MESSAGE_EXCEPTION");
}

TEST(Names, OfQueues) {
    const std::pair<int, std::string> cases[] = {{-1, "none"},  {0, "main"},   {2, "dbms"},
                                                 {20, "tsdb"},  {24, "extra"}, {25, "xx25"},
                                                 {100, "x100"}, {1000, "1000"}};
    for (const auto& [number, name] : cases)
        EXPECT_EQ(queue_name(static_cast<queue_t>(number)), name);
}

std::string printed(const event& shown) {
    std::ostringstream out;
    shown.print(out);
    return out.str();
}

TEST(Print, GivesAFieldToALine) {
    EXPECT_EQ(
        printed(devent<SYS_EXIT>(queue_t::dbms, 0, {.reason = 3, .requested_by = queue_t::wapi})),
        "reason: 3\nrequested_by: wapi\nerror_msg: \n");
    EXPECT_EQ(printed(devent<REQUEST_SPAWN_PROCESS>(queue_t::main, 0, queue_t::tsdb)), "tsdb\n");
    devent<RETURN_TQL_SIMPLE_SUBSCRIBE> nested(queue_t::wapi, 7);
    nested.record.origin.user_id = tql::id_t(1, 2);
    nested.record.obj_path.push_back({tql::id_t(3, 4), 5});
    EXPECT_EQ(printed(nested),
              "operation: 0\n"
              "origin:\n  domain_id: \n  user_id: 1.2\n  type: 0\n"
              "obj_path:\n  0:\n    id: 3.4\n    class_: 5\n");
    EXPECT_EQ(printed(devent<TQL_DELETE>(queue_t::dbms)).find("clear_master_id: false\n") !=
                  std::string::npos,
              true);
}

TEST(Clone, HasARecordOfItsOwn) {
    devent<RETURN_PURE_ENTROPY> first(queue_t::main, 1, "a");
    const auto copy = first.clone();
    first.record = "b";
    EXPECT_EQ(data<RETURN_PURE_ENTROPY>(*copy), "a");
}

TEST(DataDeathTest, OfAnotherEventIsAFault) {
    const exevent exception(queue_t::dbms, 1, "x");
    EXPECT_DEATH((void)data<TQL_SELECT>(exception), "Assertion failed: Record of");
}

}  // namespace
}  // namespace queues_test
