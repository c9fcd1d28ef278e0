// How hosts come into the tree: scans of networks and of single nodes, and hosts that have made
// themselves known.
#pragma once

namespace dbcache {
class SchemaTable;
}

namespace dbcache::schema {

/// NetworkScan, NetworkScanWork, SnmpScan, EsxiScan and CandidateNode.
void declare_scans(SchemaTable& table);

}  // namespace dbcache::schema
