#include "dbcache/bootstrap.h"

#include <fmt/format.h>

#include "dbcache/detail/record_writer.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/resolver.h"
#include "dbcache/schema_table.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/errors.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

std::optional<mdb::block_handle_t> find_place(const Store::Parts& parts, const NodeId& id) {
    return parts.indexes.unique_find(mdb::node_id_index, id);
}

/// False for a null; other failures pass through.
bool read_if_there(const mdb::dobj& object, mdb::Property& property) {
    try {
        property.read(object);
        return true;
    } catch (const mdb::error_nullprop&) {
        return false;
    }
}

/// Makes what the serialization cache holds the object at `place`, durably.
void store_durably(const Store::Parts& parts, mdb::block_handle_t place) {
    mdb::Transaction transaction(parts.database.journal());
    static_cast<void>(parts.objects.store_object(place));
    transaction.commit(false);
}

}  // namespace

// ---- sequence object ---------------------------------------------------------------------------

Sequence read_sequence(const Store::Parts& parts,
                       const std::function<std::optional<uint64_t>()>& last_ring_sequence) {
    Sequence sequence;
    const auto place = find_place(parts, kSequenceId);
    if (!place) {
        sequence.ring_sequence = last_ring_sequence().value_or(0);
        store_sequence(parts, sequence);
        return sequence;
    }
    const mdb::dobj object = parts.objects.load_object(*place);
    mdb::PropertyUint64 ring(sequence_property::ring_sequence);
    if (read_if_there(object, ring)) {
        sequence.ring_sequence = ring.value;
        logger.debug("Read ring sequence: {}", sequence.ring_sequence);
    }
    mdb::PropertyUint32 format(sequence_property::format);
    if (read_if_there(object, format)) sequence.format = format.value;
    return sequence;
}

void store_sequence(const Store::Parts& parts, const Sequence& sequence) {
    RecordWriter writer(parts.database.serializer());
    writer.add(mdb::PropertyNodeId(prop::id, kSequenceId));
    writer.add(mdb::PropertyUint64(sequence_property::ring_sequence, sequence.ring_sequence));
    writer.add(mdb::PropertyUint32(sequence_property::format, sequence.format));
    store_durably(parts, find_place(parts, kSequenceId).value_or(mdb::block_handle_t{}));
}

// ---- root object -------------------------------------------------------------------------------

void ensure_root(const Store::Parts& parts) {
    if (find_place(parts, kRootId)) return;
    logger.info("No root object found - will create.");
    RecordWriter writer(parts.database.serializer());
    writer.add_head(kRootId, NodeId{}, {}, nodetype::Domain);
    writer.add(mdb::PropertyString(prop::name, "Root domain"));
    writer.add(mdb::PropertyString(prop::infoUrl, ""));
    store_durably(parts, {});
}

// ---- indexes -----------------------------------------------------------------------------------

void check_indexes(const Store::Parts& parts, uint32_t format) {
    mdb::start_indexes(parts.indexes, find_place(parts, kRootId).value(), format);
}

// ---- cluster settings --------------------------------------------------------------------------

namespace {

struct ClusterObject {
    NodeId id;
    NodeId parent;
    uint32_t class_number;
    const char* name;
};

/// What a delete of the object has left would keep a new one from getting its id.
void discard_tombstone(Store& store, const NodeId& id, const tql::version_t& version) {
    const auto place = store.indexes().unique_find(mdb::node_id_index, id);
    if (!place) return;
    const mdb::dobj object = store.objects().load_object(*place);
    PropertyNodeType type(prop::nodeType);
    type.read(object);
    error::check(type.value == node_type_t{},
                 "Object with id {} neither deleted nor found in all_ids maps", id);
    mdb::PropertyVersion stored(prop::version);
    stored.read(object);
    error::check(tql::compare_versions({stored.value.sequence, stored.value.counter}, version) < 0,
                 "Non-increasing version");
    store.objects().delete_object(*place, true);
}

void ensure_cluster_object(Store& store, const ClusterObject& object,
                           tqlengine::RequestContext& context) {
    if (store.resolver().find_object(object.id)) return;
    StoreTransaction transaction(store);
    discard_tombstone(store, object.id, context.new_version);
    const ObjectHandlerRef parent = store.resolver().find_object(object.parent);
    error::check(static_cast<bool>(parent), "{} not found after creation", object.name);
    const std::vector<tql::value_t> no_properties;
    parent->tqlCreate(tql::id_t::from_node_id(object.id), object.class_number,
                      {{}, context.new_version, no_properties, 0, context});
    error::check(static_cast<bool>(store.resolver().find_object(object.id)),
                 "{} not found after creation", object.name);
    transaction.commit(true);
}

}  // namespace

void ensure_cluster_config(Store& store, tqlengine::RequestContext& context) {
    ensure_cluster_object(store, {kClusterConfigId, kRootId, cls::ClusterConfig, "ClusterConfig"},
                          context);
    ensure_cluster_object(
        store,
        {kClusterServerConfigId, kClusterConfigId, cls::ClusterServerConfig, "ClusterServerConfig"},
        context);
}

}  // namespace dbcache
