// Stored objects: loading, creating, changing and deleting them. An object is a bag of property
// records in a slot of an object block (object_layout.h); this keeps slots, marks and indexes in
// step. It knows nothing of classes or caches of objects. An object may move when it changes its
// size, so that only index 0 says where it lies.
//
// Creating:  serializer.serial_reset(); serializer.serial_add(property)...; handle =
// store_object({}); Changing:  image = begin_object_update(handle); update_property(image, ...)...;
// commit_object_update(image);
//
// Creating and changing share the one serialization cache of the database and must not be
// interleaved. Each of store_object(), commit_object_update() and delete_object() is one
// transaction, nested in the caller's if one is open; when it throws, what it had begun is undone.
// The caller registers the changed object's id with transaction_touch() himself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>

#include "mdb/block_layout.h"
#include "mdb/dobj.h"

namespace mdb {

class Database;
class IndexTable;
class Property;

class ObjectStore {
  public:
    /// Called with the handle of an object that is about to be changed or deleted. Must not call
    /// back into the store.
    using ChangeHook = std::function<void(block_handle_t)>;

    /// Both must outlive the store.
    ObjectStore(Database& database, IndexTable& indexes);
    ObjectStore(const ObjectStore&) = delete;
    ObjectStore& operator=(const ObjectStore&) = delete;

    /// A private copy of the object's block, with the changes of the open transaction. Throws
    /// error_nullobj for the null handle, error_need_repair when no object is there.
    [[nodiscard]] dobj load_object(block_handle_t handle);
    /// The object in the block cache, as last committed: read-only, and valid only until the next
    /// block access. Copies nothing. Throws like load_object().
    [[nodiscard]] dobj fetch_object(block_handle_t handle);

    /// Makes the content of the serialization cache the object at `handle`, or a new object for the
    /// null handle. Returns where it lies now. Throws error_dbnospace, error_index_conflict when
    /// another object has its id, error_transact when the journal is too full.
    block_handle_t store_object(block_handle_t handle);

    /// An image of just this object, to be changed and given to commit_object_update(), or dropped.
    /// Its records can be read like those of any dobj. Throws error_internal for the null handle,
    /// else like load_object().
    [[nodiscard]] dobj begin_object_update(block_handle_t handle);
    /// Puts `property` in the place of the record with its id, or at the end when there is none and
    /// `may_add` is set; as an explicit null with `as_null`. Throws error_implicit_nullprop when
    /// there is none and it may not be added, error_bigobj when the object would outgrow a block;
    /// then the image is as before.
    void update_property(dobj& image, const Property& property, bool may_add, bool as_null);
    /// Takes the record with `id` out. Throws error_implicit_nullprop when there is none, unless
    /// `may_miss`.
    void remove_property(dobj& image, uint32_t id, bool may_miss);
    /// Stores the image; returns where the object lies now. The image is freed. Throws like
    /// store_object().
    block_handle_t commit_object_update(dobj& image);

    /// Removes the object from all indexes and frees its slot. `asynchronous` as for
    /// transaction_end().
    void delete_object(block_handle_t handle, bool asynchronous);

    /// Replaces the hook; an empty one is none.
    void set_object_change_hook(ChangeHook hook) { change_hook_ = std::move(hook); }

  private:
    void call_hook(block_handle_t handle) {
        if (change_hook_) change_hook_(handle);
    }
    [[nodiscard]] std::span<std::byte> block_bytes(const dobj& object) const;
    [[nodiscard]] bool overwrite_record(const dobj& image, const Property& property, bool as_null);
    [[nodiscard]] bool copy_records(const dobj& image, uint32_t id,
                                    const std::function<void()>& put_new);
    block_handle_t replace_object(block_handle_t handle, std::span<const std::byte> records);
    [[nodiscard]] dobj allocate_object(uint32_t size);
    void split_slot(dobj& object, uint32_t size);
    void resize_object(dobj& object, uint32_t size);
    void free_slot(dobj& object);
    void journal_bytes(const dobj& object, uint32_t offset, uint32_t length);

    Database& database_;
    IndexTable& indexes_;
    ChangeHook change_hook_;
};

}  // namespace mdb
