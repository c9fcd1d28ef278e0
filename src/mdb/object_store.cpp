#include "mdb/object_store.h"

#include <cstring>
#include <fmt/format.h>

#include "error/exception.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/detail/index_keys.h"
#include "mdb/detail/object_access.h"
#include "mdb/index.h"
#include "mdb/object_slots.h"
#include "mdb/property.h"

namespace mdb {

namespace {

const logging::Logger logger{"objectio"};

[[noreturn]] void throw_missing(uint32_t id) {
    throw error_implicit_nullprop(fmt::format("Attempt to read (I)null property \"{}\"", id), id);
}

bool holds_records(const dobj& object, std::span<const std::byte> records) {
    const auto stored = object_slot(object).subspan(slot_layout::records);
    return stored.size() == records.size() &&
           std::memcmp(stored.data(), records.data(), records.size()) == 0;
}

}  // namespace

ObjectStore::ObjectStore(Database& database, IndexTable& indexes)
    : database_(database), indexes_(indexes) {}

std::span<std::byte> ObjectStore::block_bytes(const dobj& object) const {
    return {object.writable(), database_.block_size()};
}

dobj ObjectStore::load_object(block_handle_t handle) {
    return detail::load_object(database_, handle);
}

dobj ObjectStore::fetch_object(block_handle_t handle) {
    return detail::fetch_object(database_, handle);
}

block_handle_t ObjectStore::store_object(block_handle_t handle) {
    const Serializer& serializer = database_.serializer();
    if (!handle.is_null()) call_hook(handle);
    return replace_object(handle, {serializer.data(), serializer.serial_size()});
}

dobj ObjectStore::begin_object_update(block_handle_t handle) {
    if (handle.is_null()) throw error_internal("Object update begun on null object");
    call_hook(handle);
    const dobj object = detail::current_object(database_, handle);
    const auto slot = object_slot(object);
    dobj image(handle, database_.pool().acquire());
    std::memcpy(image.writable(), slot.data(), slot.size());
    std::memset(image.writable() + slot.size(), 0, database_.block_size() - slot.size());
    image.image = true;
    return image;
}

/// Puts the image's records into the serialization cache, with put_new() called in the place of the
/// first record with `id`. False when there was none.
bool ObjectStore::copy_records(const dobj& image, uint32_t id,
                               const std::function<void()>& put_new) {
    Serializer& serializer = database_.serializer();
    serializer.serial_reset();
    bool found = false;
    for (const RecordView record : ObjectRecords(image)) {
        if (record.id() != id) {
            serializer.serial_add_raw(record.bytes().data());
            continue;
        }
        if (found)
            logger.error("Object at block {} offset {} had duplicate instances of property id {}",
                         image.block, image.offset, id);
        else
            put_new();
        found = true;
    }
    return found;
}

/// Overwrites the one record with the property's id when the new one is as long. False, and nothing
/// done, when there is no such record, or more than one with the id.
bool ObjectStore::overwrite_record(const dobj& image, const Property& property, bool as_null) {
    std::span<const std::byte> found;
    for (const RecordView record : ObjectRecords(image)) {
        if (record.id() != property.id) continue;
        if (!found.empty()) return false;
        found = record.bytes();
    }
    const size_t length = as_null ? record_layout::kHeadLength : property.record_length();
    if (found.size() != length) return false;
    const std::span<std::byte> place =
        block_bytes(image).subspan(static_cast<size_t>(found.data() - image.data), length);
    if (as_null)
        property.store_null(place);
    else
        property.store(place);
    return true;
}

void ObjectStore::update_property(dobj& image, const Property& property, bool may_add,
                                  bool as_null) {
    if (overwrite_record(image, property, as_null)) return;
    const auto put = [&] {
        if (as_null)
            database_.serializer().serial_add_null(property);
        else
            database_.serializer().serial_add(property);
    };
    if (!copy_records(image, property.id, put)) {
        if (!may_add) throw_missing(property.id);
        put();
    }
    database_.serializer().serial_replace_object(image);
}

void ObjectStore::remove_property(dobj& image, uint32_t id, bool may_miss) {
    if (!copy_records(image, id, [] {})) {
        if (!may_miss) throw_missing(id);
        return;
    }
    database_.serializer().serial_replace_object(image);
}

block_handle_t ObjectStore::commit_object_update(dobj& image) {
    error::check(image.loaded() && image.image, "commit of {}:{}, which is no object update",
                 image.block, image.offset);
    const dobj owned = std::move(image);
    const auto slot = object_slot(owned);
    return replace_object(owned.handle(), slot.subspan(slot_layout::records));
}

/// Writes an object of these records over the one at `handle`, or as a new one. All of it, the
/// search for space too, is one transaction: a slot never becomes durable without its object.
block_handle_t ObjectStore::replace_object(block_handle_t handle,
                                           std::span<const std::byte> records) {
    const uint32_t size = static_cast<uint32_t>(records.size()) + slot_layout::records;
    dobj object;
    if (!handle.is_null()) object = load_object(handle);
    const detail::ObjectKeys old_keys = detail::read_object_keys(object);
    const bool same_records = object.loaded() && holds_records(object, records);

    Transaction transaction(database_.journal());
    if (handle.is_null())
        object = allocate_object(size);
    else
        resize_object(object, size);
    const auto block = block_bytes(object);
    set_slot(block, {object.offset, size, false});
    if (!records.empty())
        std::memcpy(&block[object.offset + slot_layout::records], records.data(), records.size());
    indexes_.update_indexes(old_keys, handle, detail::read_object_keys(object), object.handle());

    if (!same_records) journal_bytes(object, object.offset, size);
    transaction.commit();
    return object.handle();
}

dobj ObjectStore::allocate_object(uint32_t size) {
    dobj object;
    Transaction transaction(database_.journal());
    database_.allocator().allocate_space(0, size, object);
    if (!slot_at(block_bytes(object), object.offset).placeholder)
        throw error_internal(
            fmt::format("Allocation code returned object {}:{} which is NOT a placeholder",
                        object.block, object.offset));
    split_slot(object, size);
    journal_bytes(object, object.offset, sizeof(uint32_t));
    transaction.commit();
    return object;
}

void ObjectStore::split_slot(dobj& object, uint32_t size) {
    const SplitResult split = split_placeholder(block_bytes(object), object.offset, size);
    if (!split.cut) {
        logger.info(" - size matches request, returning untouched");
        return;
    }
    journal_bytes(object, object.offset, sizeof(uint32_t));
    object.offset = split.slot.offset;
}

void ObjectStore::resize_object(dobj& object, uint32_t size) {
    error::check(object.loaded(), "dobj.data is NULL!");
    if (slot_at(block_bytes(object), object.offset).length == size) return;
    const uint32_t hint = object.block;
    free_slot(object);
    dobj moved;
    database_.allocator().allocate_space(hint, size, moved);
    object = std::move(moved);
    if (slot_at(block_bytes(object), object.offset).length > size) split_slot(object, size);
    const uint32_t found = slot_at(block_bytes(object), object.offset).length;
    if (found != size)
        throw error_internal(fmt::format(
            "Located a block of {} bytes when we were looking for {} bytes", found, size));
    set_slot(block_bytes(object), {object.offset, size, false});
}

void ObjectStore::free_slot(dobj& object) {
    const FreeResult freed = free_slot_in_block(block_bytes(object), object.offset);
    journal_bytes(object, freed.changed_offset, sizeof(uint32_t));
    if (freed.damaged_offset) {
        logger.error("block {} offset {} contained zero-length object which should not exist",
                     object.block, *freed.damaged_offset);
        // No walk gets past the damage to tell how much of the block is free: the mark stays.
        return;
    }
    Allocator& allocator = database_.allocator();
    const mark_t mark = allocator.classify_block(object);
    if (mark != allocator.query_mark(object.block)) allocator.set_mark(object.block, mark);
}

void ObjectStore::journal_bytes(const dobj& object, uint32_t offset, uint32_t length) {
    database_.journal().journal_update(object.data + offset, length,
                                       database_.store().block_offset(object.block) + offset);
}

void ObjectStore::delete_object(block_handle_t handle, bool asynchronous) {
    call_hook(handle);
    dobj object = load_object(handle);
    if (!object.loaded()) throw error_internal("Attempted to delete non-existing object");
    Transaction transaction(database_.journal());
    indexes_.update_indexes(detail::read_object_keys(object), handle, {}, {});
    free_slot(object);
    logger.debug("ALLOC-CHANGE: free'd {}:{}", handle.block, handle.offset);
    transaction.commit(asynchronous);
}

}  // namespace mdb
