#include "dbcache/detail/record_writer.h"

#include "dbcache/detail/large_objects.h"
#include "mdb/large_object.h"
#include "tql/names.h"

namespace dbcache {

void RecordWriter::add_head(const NodeId& id, const NodeId& parent, const tql::version_t& version,
                            uint32_t nodetype) {
    add(mdb::PropertyNodeId(prop::id, id));
    add(mdb::PropertyNodeId(prop::parentId, parent));
    add(mdb::PropertyVersion(prop::version, {version.ring_sequence, version.counter}));
    add(PropertyNodeType(prop::nodeType, static_cast<node_type_t>(nodetype)));
}

uint32_t RecordWriter::write_lob(std::span<const uint8_t> bytes) {
    error::check(database_ != nullptr, "A large object for a writer of records alone");
    return mdb::write_lob(*database_, std::as_bytes(bytes));
}

void RecordWriter::free_lob(uint32_t block) {
    error::check(database_ != nullptr, "A large object for a writer of records alone");
    detail::free_large_object(*database_, block);
}

}  // namespace dbcache
