// The register of custom net checks, by the events that fill it and ask it.
#include <gtest/gtest.h>

#include "dbms/dispatcher.h"
#include "dbms/netcheck_handlers.h"
#include "test_family.h"

using namespace dbms;
using queues::queue_t;

namespace {

class NetCheckTest : public testing::Test, protected dbms_test::TestFamily {
  protected:
    void tell(std::list<net_check_t> checks) {
        queues::devent<queues::UPDATE_NETCHECKS> received(queue_t::main, queues::kNoReply,
                                                          {std::move(checks)});
        dispatcher.dispatch(received);
        settle();
        EXPECT_FALSE(main.front().isReady());
    }
    std::string ask(const std::string& name) {
        queues::devent<queues::GET_NETCHECK_INFO> received(queue_t::main, 7, name);
        dispatcher.dispatch(received);
        settle();
        const auto answer = main.read();
        if (const auto* failure = dynamic_cast<const queues::exevent*>(answer.get()))
            return failure->text;
        const auto& info = queues::data<queues::RETURN_NETCHECK_INFO>(*answer);
        return info.command + "|" + info.result_pattern;
    }

    Dispatcher dispatcher{services, make_event_table(), trace, [] { return Leftovers{}; }};
};

TEST_F(NetCheckTest, TheLastOneToldCounts) {
    tell({{"ldap", "check_ldap", "ok"}, {"sip", "check_sip", "200"}});
    EXPECT_EQ(ask("ldap"), "check_ldap|ok");
    tell({{"ldap", "check_ldap -v2", "fine"}});
    EXPECT_EQ(ask("ldap"), "check_ldap -v2|fine");
    EXPECT_EQ(ask("sip"), "check_sip|200");
    EXPECT_NE(ask("LDAP").find("Unknown custom netcheck \"LDAP\""), std::string::npos);
}

}  // namespace
