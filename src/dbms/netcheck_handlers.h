// The custom net checks: who runs them tells the server what each is called and how it is run, and
// others ask. Kept in memory only; the teller tells again after a start.
#pragma once

#include <map>
#include <string>

#include "dbms/services.h"
#include "queues/event.h"
#include "queues/records/dbms_checks.h"

namespace dbms {

class CustomNetChecks {
  public:
    /// Takes the place of the one of that name.
    void put(const net_check_t& check);
    /// Throws errors::db_anomaly for an unknown name.
    [[nodiscard]] const Return_NetCheck_Info_Data& get(const std::string& name) const;

  private:
    std::map<std::string, Return_NetCheck_Info_Data> checks_;
};

void ev_update_netchecks(EventContext& context, queues::event& received);
void ev_get_netcheck_info(EventContext& context, queues::event& received);

}  // namespace dbms
