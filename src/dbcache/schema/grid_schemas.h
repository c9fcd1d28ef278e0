// Servers that know of one another: this server's identity, the stations and links that it knows,
// the domains that it shows to others, and the places where theirs are mounted.
#pragma once

namespace dbcache {
class SchemaTable;
}

namespace dbcache::schema {

/// GridConfig, GridStationConfig, GridLinkConfig, MountPoint and DomainExport.
void declare_grid(SchemaTable& table);

}  // namespace dbcache::schema
