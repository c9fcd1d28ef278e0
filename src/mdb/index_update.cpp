// From the state of an object before and after a change to the entries of the indexes.

#include <fmt/format.h>

#include "mdb/database.h"
#include "mdb/detail/index_keys.h"
#include "mdb/detail/index_tree.h"
#include "mdb/index.h"
#include "mdb/property_types.h"

namespace mdb {

namespace detail {

namespace {

/// The id in the payload of a key property; none for a null.
std::optional<NodeId> key_of(const RecordView& record, block_handle_t handle) {
    if (record.is_null()) return {};
    PropertyNodeId property;
    property.read_record(record, handle);
    return property.value;
}

bool truth_of(const RecordView& record, block_handle_t handle) {
    if (record.is_null()) return false;
    PropertyBool property;
    property.read_record(record, handle);
    return property.value;
}

}  // namespace

ObjectKeys read_object_keys(const dobj& object) {
    ObjectKeys result;
    if (!object.loaded()) return result;
    bool active = false;
    // One bit for each property, so that the walk ends once all have been seen and a second record
    // of an id counts for nothing.
    uint32_t missing = 0x3F;
    for (const RecordView record : ObjectRecords(object)) {
        uint32_t slot = 0;
        switch (record.id()) {
            case key_property::own_id:
                slot = node_id_index;
                break;
            case key_property::parent:
                slot = parent_id_index;
                break;
            case key_property::active:
                slot = active_parent_index;
                break;
            case key_property::inherits:
                slot = inherits_index;
                break;
            case key_property::master_id:
                slot = master_id_index;
                break;
            case key_property::alert_notify:
                slot = alert_notify_index;
                break;
            default:
                continue;
        }
        if ((missing & 1U << slot) == 0) continue;
        if (slot == active_parent_index)
            active = truth_of(record, object.handle());
        else
            result[slot] = key_of(record, object.handle());
        missing &= ~(1U << slot);
        if (missing == 0) break;
    }
    if (active) result[active_parent_index] = result[parent_id_index];
    return result;
}

}  // namespace detail

void IndexTable::update_indexes(const detail::ObjectKeys& old_keys, block_handle_t old_handle,
                                const detail::ObjectKeys& new_keys, block_handle_t new_handle) {
    const auto& old_id = old_keys[node_id_index];
    const auto& new_id = new_keys[node_id_index];
    if (old_id && old_id == new_id) {
        if (old_handle != new_handle) unique_update(node_id_index, *new_id, new_handle, true);
    } else {
        if (old_id) unique_delete(node_id_index, *old_id);
        if (new_id) unique_update(node_id_index, *new_id, new_handle, false);
    }
    for (uint32_t n = parent_id_index; n < index_count(); ++n)
        if (roots_[n] != kNoRoot)
            update_non_unique(n, old_keys[n], old_handle, new_keys[n], new_handle);
}

void IndexTable::update_non_unique(uint32_t n, const std::optional<NodeId>& old_key,
                                   block_handle_t old_handle, const std::optional<NodeId>& new_key,
                                   block_handle_t new_handle) {
    if (old_key && old_key == new_key) {
        if (old_handle != new_handle) non_unique_update(n, *old_key, old_handle, new_handle);
        return;
    }
    if (old_key) non_unique_delete(n, *old_key, old_handle);
    if (new_key) non_unique_insert(n, *new_key, new_handle);
}

}  // namespace mdb
