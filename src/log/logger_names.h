// The loggers of the server by name, for the server, which makes them all at its start, and for
// whoever is to tell a person's slip of the pen from a logger. Those of other processes are where
// they are used.
#pragma once

#include <array>
#include <string_view>

namespace logging {

inline constexpr std::array<std::string_view, 20> kServerLoggers = {
    "dbms",           "dbms_handlers",     "dbms_broadcast",
    "dbms_tql",       "dbcache_tql",       "dbcache",
    "dbcache_schema", "dbms_recalc",       "dbms_objcache",
    "dbms_tsdb",      "dbms_conversion",   "agent_schema",
    "domain_schema",  "alert_schema",      "autodiscovery_schema",
    "view_schema",    "multicheck_schema", "esxi_schema",
    "tqlquery",       "objectio"};

}  // namespace logging
