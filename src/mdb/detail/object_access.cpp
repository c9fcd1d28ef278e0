#include "mdb/detail/object_access.h"

#include <fmt/format.h>

#include "mdb/object_slots.h"

namespace mdb::detail {

namespace {

/// An object's slot must begin and end in its block; `placeholder_message` when there is a
/// placeholder.
void check_slot(const Database& database, const dobj& object, const char* placeholder_message) {
    const std::span<const std::byte> block(object.data, database.block_size());
    if (slot_at(block, object.offset).placeholder) throw error_need_repair(placeholder_message);
    const Slot slot = slot_at(block, object.offset);
    if (slot.length < slot_layout::records || !slot_fits(slot, block.size()))
        throw error_need_repair(
            fmt::format("Object at {}:{} does not fit in its block", object.block, object.offset));
}

void check_handle(const Database& database, block_handle_t handle) {
    if (handle.is_null()) throw error_nullobj("Attempt to read null object");
    if (handle.offset > database.block_size() - slot_layout::records)
        throw error_need_repair(
            fmt::format("Object at {}:{} does not fit in its block", handle.block, handle.offset));
}

}  // namespace

dobj load_object(Database& database, block_handle_t handle) {
    check_handle(database, handle);
    dobj object(handle, database.cache().private_block(handle.block));
    check_slot(database, object, "Attempt to load placeholder");
    return object;
}

dobj current_object(Database& database, block_handle_t handle) {
    if (database.journal().transaction_changed(handle.block)) return load_object(database, handle);
    check_handle(database, handle);
    dobj object(handle, database.cache().cached_block(handle.block));
    check_slot(database, object, "Attempt to load placeholder");
    return object;
}

dobj fetch_object(Database& database, block_handle_t handle) {
    check_handle(database, handle);
    dobj object(handle, database.cache().cached_block(handle.block));
    check_slot(database, object, "Attempt to fetch placeholder reference");
    return object;
}

}  // namespace mdb::detail
