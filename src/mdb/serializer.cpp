#include "mdb/serializer.h"

#include <algorithm>
#include <cstring>

#include "mdb/errors.h"
#include "mdb/object_layout.h"
#include "mdb/object_slots.h"
#include "mdb/property.h"
#include "util/byte_order.h"

namespace mdb {

Serializer::Serializer(uint32_t block_size) : bytes_(block_size) {
    if (block_size == 0)
        throw error_internal(
            "Attempt to initialize raw access layer before MDB I/O was initialized");
}

void Serializer::serial_reset() {
    serial_fill_ = 0;
    ids_.clear();
}

bool Serializer::holds(uint32_t id) const {
    return std::binary_search(ids_.begin(), ids_.end(), id);
}

std::span<std::byte> Serializer::claim(uint32_t id, uint32_t length) {
    ids_.insert(std::lower_bound(ids_.begin(), ids_.end(), id), id);
    const std::span<std::byte> record{bytes_.data() + serial_fill_, length};
    serial_fill_ += length;
    return record;
}

void Serializer::serial_add(const Property& property) {
    if (holds(property.id)) return;
    const uint32_t length = property.record_length();
    if (!fits(length))
        throw error_bigobj(
            fmt::format("No space in serialization cache for property {}", property.id));
    property.store(claim(property.id, length));
}

void Serializer::serial_add_null(const Property& property) {
    if (holds(property.id)) return;
    if (!fits(record_layout::kHeadLength))
        throw error_bigobj(
            fmt::format("No space in serialization cache for property {}", property.id));
    property.store_null(claim(property.id, record_layout::kHeadLength));
}

void Serializer::serial_add_raw(const std::byte* record) {
    const uint32_t id = util::load_be32(record + record_layout::id);
    if (holds(id)) return;
    const uint32_t length = util::load_be32(record + record_layout::length);
    if (!fits(length)) throw error_bigobj("No space in serialization cache for raw add");
    std::memcpy(claim(id, length).data(), record, length);
}

void Serializer::serial_store_at(dobj& object) const {
    const std::span<std::byte> block{object.writable(), bytes_.size()};
    error::check(object.writable() != nullptr, "Records are to be stored in a block of the cache");
    Slot slot = slot_at(block, object.slot_offset());
    error::check(
        slot.length == serial_fill_ + slot_layout::records && slot_fits(slot, block.size()),
        "Slot of {} bytes is to take {} bytes of records", slot.length, serial_fill_);
    slot.placeholder = false;
    set_slot(block, slot);
    std::memcpy(&block[slot.offset + slot_layout::records], bytes_.data(), serial_fill_);
}

void Serializer::serial_replace_object(dobj& object) const {
    error::check(object.writable() != nullptr, "Records are to be stored in a block of the cache");
    if (bytes_.size() - serial_fill_ < slot_layout::records)
        throw error_bigobj("No space in a block for the content of the serialization cache");
    const std::span<std::byte> block{object.writable(), bytes_.size()};
    set_slot(block, Slot{0, serial_fill_ + slot_layout::records, false});
    std::memcpy(&block[slot_layout::records], bytes_.data(), serial_fill_);
}

}  // namespace mdb
