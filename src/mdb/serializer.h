// The serialization cache: one buffer of a block's size in which the records of a new object image
// are put together. It holds one object at a time; whoever builds resets it first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "mdb/dobj.h"

namespace mdb {

class Property;

class Serializer {
  public:
    /// Throws error_internal for a block size of 0.
    explicit Serializer(uint32_t block_size);

    /// Forgets everything added so far.
    void serial_reset();
    /// Appends the property's record, unless its id was added before. Throws error_bigobj when a
    /// block couldn't hold it.
    void serial_add(const Property& property);
    /// Appends an explicit null of the property, 12 bytes, unless its id was added before.
    /// error_bigobj.
    void serial_add_null(const Property& property);
    /// Appends a stored record as it is, unless its id was added before. Its own length field,
    /// which the caller has checked against the record's slot, says how long it is. error_bigobj.
    void serial_add_raw(const std::byte* record);
    /// Bytes in use.
    [[nodiscard]] uint32_t serial_size() const noexcept { return serial_fill_; }
    /// The records; live until the next change.
    [[nodiscard]] const std::byte* data() const noexcept { return bytes_.data(); }

    /// Copies the records into the slot at the object's offset and makes it an object slot; the
    /// slot's length must have been set and must fit. Needs a private copy.
    void serial_store_at(dobj& object) const;
    /// Makes the records the one object of the image, from byte 0 on. Throws error_bigobj when
    /// records and slot word together exceed the block.
    void serial_replace_object(dobj& object) const;

  private:
    [[nodiscard]] bool holds(uint32_t id) const;
    /// Room for a record of `length` bytes, which must fit.
    [[nodiscard]] std::span<std::byte> claim(uint32_t id, uint32_t length);
    [[nodiscard]] bool fits(uint32_t length) const noexcept {
        return length <= bytes_.size() - serial_fill_;
    }

    std::vector<std::byte> bytes_;
    uint32_t serial_fill_ = 0;
    /// Ascending.
    std::vector<uint32_t> ids_;
};

}  // namespace mdb
