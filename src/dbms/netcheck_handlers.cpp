#include "dbms/netcheck_handlers.h"

#include <fmt/format.h>

#include "error/exception.h"
#include "log/log.h"

namespace dbms {

namespace {

const logging::Logger logger{"dbms"};

}  // namespace

void CustomNetChecks::put(const net_check_t& check) {
    checks_[check.name] = {check.command, check.result_pattern};
}

const Return_NetCheck_Info_Data& CustomNetChecks::get(const std::string& name) const {
    const auto found = checks_.find(name);
    if (found == checks_.end())
        throw errors::db_anomaly(fmt::format("Unknown custom netcheck \"{}\"", name));
    return found->second;
}

void ev_update_netchecks(EventContext& context, queues::event& received) {
    for (const net_check_t& check : queues::data<queues::UPDATE_NETCHECKS>(received).checks) {
        context.services.net_checks.put(check);
        logger.info("Got update for NetCheck: {}", check.name);
    }
}

void ev_get_netcheck_info(EventContext& context, queues::event& received) {
    const std::string& name = queues::data<queues::GET_NETCHECK_INFO>(received);
    reply<queues::RETURN_NETCHECK_INFO>(context, received, context.services.net_checks.get(name));
}

}  // namespace dbms
