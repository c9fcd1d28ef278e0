#include "mdb/property.h"

#include <fmt/format.h>

#include "mdb/dobj.h"
#include "mdb/errors.h"
#include "mdb/object_slots.h"

namespace mdb {

ObjectRecords::ObjectRecords(std::span<const std::byte> slot, block_handle_t handle)
    : records_(slot.size() < slot_layout::kSmallestWithRecords
                   ? std::span<const std::byte>{}
                   : slot.subspan(slot_layout::records)),
      handle_(handle) {}

ObjectRecords::ObjectRecords(const dobj& object)
    : ObjectRecords(object_slot(object), object.handle()) {}

void ObjectRecords::iterator::throw_bad_length() const {
    const bool has_length = rest_.size() >= record_layout::type;
    if (has_length && util::load_be32(&rest_[record_layout::length]) == 0)
        throw error_need_repair(
            fmt::format("Property of zero size in {}:{}", handle_.block, handle_.offset));
    throw error_need_repair(
        fmt::format("Property of bad size in {}:{}", handle_.block, handle_.offset));
}

void Property::store_head(std::span<std::byte> record) const {
    const uint32_t inherited_bit = inherited > 0 ? record_layout::kInheritedBit : 0;
    util::store_be32(&record[record_layout::id], id);
    util::store_be32(&record[record_layout::length], static_cast<uint32_t>(record.size()));
    util::store_be32(&record[record_layout::type], type_id() | inherited_bit);
}

void Property::store_null(std::span<std::byte> record) const {
    const auto head = record.first(record_layout::kHeadLength);
    store_head(head);
    std::byte* type = &head[record_layout::type];
    util::store_be32(type, util::load_be32(type) | record_layout::kNullBit);
}

void Property::read(const dobj& object) {
    for (const RecordView record : ObjectRecords(object)) {
        if (record.id() == id) return read_record(record, object.handle());
    }
    inherited = 0;
    throw error_implicit_nullprop(fmt::format("Attempt to read (I)null property \"{}\"", id), id);
}

void Property::read_record(const RecordView& record, block_handle_t handle) {
    id = record.id();
    if (record.type_id() != type_id())
        throw error_wrongtype(
            fmt::format("Attempt to read badly typed property id {} in object {}:{} had type ID "
                        "{}, wanted {}",
                        id, handle.block, handle.offset, record.type_id(), type_id()),
            {id, handle.block, handle.offset, record.type_id(), type_id()});
    inherited = record.is_inherited() ? 1 : 0;
    if (record.is_null())
        throw error_explicit_nullprop(fmt::format("Attempt to read (E)null property \"{}\"", id),
                                      id);
    load(record.bytes());
}

}  // namespace mdb
