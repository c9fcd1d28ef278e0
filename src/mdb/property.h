// Property: one typed value of an object and its record form; and the walk over the records of an
// object as they lie in its slot. The concrete classes are in property_types.h. Nothing here knows
// what a property id means: that is the business of the schema.
//
// Two ways to read an object: Property::read() finds one property; a loop over ObjectRecords takes
// all of them in one pass, without allocation, and hands each record to Property::read_record().
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>

#include "mdb/block_layout.h"
#include "mdb/object_layout.h"
#include "util/byte_order.h"

namespace mdb {

struct dobj;

/// One property record in a block or buffer. A view: it lives as long as the bytes do, for an
/// object of fetch_object() only until the next block access.
class RecordView {
  public:
    /// `bytes` is the whole record, head included.
    explicit RecordView(std::span<const std::byte> bytes) : bytes_(bytes) {}

    [[nodiscard]] uint32_t id() const { return util::load_be32(&bytes_[record_layout::id]); }
    [[nodiscard]] uint32_t type_id() const { return type_word() & record_layout::kTypeMask; }
    /// True for an explicit null: there is no payload.
    [[nodiscard]] bool is_null() const { return (type_word() & record_layout::kNullBit) != 0; }
    [[nodiscard]] bool is_inherited() const {
        return (type_word() & record_layout::kInheritedBit) != 0;
    }
    /// True for a value of the type, neither null nor inherited.
    [[nodiscard]] bool is_plain(uint32_t type) const { return type_word() == type; }
    /// Payload and fill.
    [[nodiscard]] std::span<const std::byte> payload() const {
        return bytes_.subspan(record_layout::payload);
    }
    [[nodiscard]] std::span<const std::byte> bytes() const { return bytes_; }

  private:
    [[nodiscard]] uint32_t type_word() const {
        return util::load_be32(&bytes_[record_layout::type]);
    }
    std::span<const std::byte> bytes_;
};

/// The records of one object, in the order in which they lie, as a range for a loop. Advancing onto
/// a record that cannot be one throws error_need_repair: "Property of zero size in B:O" for a
/// length of 0, another text for a length that is shorter than a head or leaves the slot.
class ObjectRecords {
  public:
    class iterator {
      public:
        using value_type = RecordView;
        using difference_type = std::ptrdiff_t;
        iterator() = default;
        [[nodiscard]] RecordView operator*() const { return RecordView(rest_.first(length_)); }
        iterator& operator++() {
            rest_ = rest_.subspan(length_);
            measure();
            return *this;
        }
        iterator operator++(int) {
            iterator before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(const iterator& it, std::default_sentinel_t) {
            return it.rest_.empty();
        }
        /// Where the record begins, or where the last one ended.
        [[nodiscard]] const std::byte* place() const { return rest_.data(); }

      private:
        friend class ObjectRecords;
        iterator(std::span<const std::byte> rest, block_handle_t handle)
            : rest_(rest), handle_(handle) {
            measure();
        }
        /// Takes the length of the record at the start of rest_.
        void measure() {
            if (rest_.empty()) return;
            const bool has_head = rest_.size() >= record_layout::kHeadLength;
            length_ = has_head ? util::load_be32(&rest_[record_layout::length]) : 0;
            if (!has_head || length_ < record_layout::kHeadLength || length_ > rest_.size())
                [[unlikely]]
                throw_bad_length();
        }
        [[noreturn]] void throw_bad_length() const;

        std::span<const std::byte> rest_;
        uint32_t length_ = 0;
        block_handle_t handle_;
    };

    /// `slot` is the slot of an object with its word; `handle` stands in the texts of errors.
    ObjectRecords(std::span<const std::byte> slot, block_handle_t handle);
    /// The records of `object`, which must have data.
    explicit ObjectRecords(const dobj& object);
    ObjectRecords() = default;
    /// Those of them that begin at or behind `begin`, the begin of one of them or their end.
    [[nodiscard]] ObjectRecords from(const std::byte* begin) const {
        ObjectRecords rest(*this);
        rest.records_ = rest.records_.subspan(static_cast<size_t>(begin - records_.data()));
        return rest;
    }

    [[nodiscard]] iterator begin() const { return {records_, handle_}; }
    [[nodiscard]] std::default_sentinel_t end() const { return {}; }

  private:
    std::span<const std::byte> records_;
    block_handle_t handle_;
};

/// Abstract base of all stored values.
class Property {
  public:
    virtual ~Property() = default;

    /// What the type word of a record of this class holds. Some types serve more than one class.
    [[nodiscard]] virtual uint32_t type_id() const = 0;
    /// Bytes that the payload of the present value and its fill take when the payload starts at
    /// byte `offset` of the record. Throws error_internal for a text with a NUL in it.
    [[nodiscard]] virtual uint32_t payload_size(uint32_t offset) const = 0;
    /// Writes head, payload and fill; `record` has record_length() bytes. Fill is written as zeros,
    /// so that equal objects have equal bytes.
    virtual void store(std::span<std::byte> record) const = 0;
    /// Sets value and id from `record`, which is not a null and whose type has been checked. Throws
    /// error_need_repair when the payload is cut short.
    virtual void load(std::span<const std::byte> record) = 0;

    /// Length of the whole record of the present value.
    [[nodiscard]] uint32_t record_length() const {
        return record_layout::payload + payload_size(record_layout::payload);
    }
    /// Writes the 12 bytes of an explicit null of this property.
    void store_null(std::span<std::byte> record) const;

    /// Reads the property with this id from `object`. Throws error_implicit_nullprop when there is
    /// no record, error_explicit_nullprop when there is a null, error_wrongtype when the record is
    /// of another type, error_need_repair when the records are damaged. `inherited` is set whenever
    /// a record of the right type was found, and cleared when there is none.
    void read(const dobj& object);
    /// The same for a record already found, whose id is taken over; `handle` stands in the texts of
    /// errors.
    void read_record(const RecordView& record, block_handle_t handle);

    /// 1 when the stored value comes from inheritance; stored as such when above 0.
    int32_t inherited = 0;
    uint32_t id = 0;

  protected:
    explicit Property(uint32_t property_id) : id(property_id) {}
    Property(const Property&) = default;
    Property& operator=(const Property&) = default;

    /// Writes the 12 bytes of the head for a record of `record.size()` bytes.
    void store_head(std::span<std::byte> record) const;
};

}  // namespace mdb
