#include "dbcache/detail/record_writer.h"

#include "tql/errors.h"
#include "tql/names.h"

namespace dbcache {

void RecordWriter::add_head(const NodeId& id, const NodeId& parent, const tql::version_t& version,
                            uint32_t nodetype) {
    add(mdb::PropertyNodeId(prop::id, id));
    add(mdb::PropertyNodeId(prop::parentId, parent));
    add(mdb::PropertyVersion(prop::version, {version.ring_sequence, version.counter}));
    add(PropertyNodeType(prop::nodeType, static_cast<node_type_t>(nodetype)));
}

uint32_t RecordWriter::write_lob(std::span<const uint8_t>) {
    throw errors::tql(errors::ERR_NOT_IMPLEMENTED, "Large objects are not supported");
}

void RecordWriter::free_lob(uint32_t) {
    throw errors::tql(errors::ERR_NOT_IMPLEMENTED, "Large objects are not supported");
}

}  // namespace dbcache
