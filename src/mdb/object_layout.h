// The layout of an object block, its slots and the property records in a slot. Everything that
// reads or writes an object block takes its offsets from here: slot arithmetic, property classes,
// space allocator, verifier and tests. Nothing here touches memory.
//
// An object block is a gapless series of slots, from offset 0 to the end of the block. All numbers
// are big-endian.
//
//   slot      width  field
//   0         4      slot word: bits 31..1 length of the slot in bytes, this word included;
//                    bit 0 set: placeholder (free space), clear: object
//   4         ...    object: property records up to the end of the slot; placeholder: anything
//
//   record    width  field
//   0         4      id of the property
//   4         4      length of the record in bytes, this head included, a multiple of 8
//   8         4      type word: bits 27..0 type id, bit 30 null, bit 31 inherited
//   12        ...    payload, then fill up to the length; not in an explicit null of 12 bytes
//
//   list payload     (type id of the element + 256)
//   0         4      number of elements
//   4         4      unused
//   8         ...    elements, each beginning at a multiple of 8 from the start of the payload
//
//   mark payload
//   0         1      marked, 0 or 1
//   1 2 3     1      low 8 bits of the first words of prev, next, last
//   4 8 12    4      second words of prev, next, last
//
// An object whose only record is the 4-byte property 3 with value 1, at offset 64 of its block:
//   64: 00 00 00 14   slot of 20 bytes, an object
//   68: 00 00 00 03  00 00 00 10  00 00 00 01   id 3, 16 bytes, type 1
//   80: 00 00 00 01
//
// Invariants, by number in the verifier (verify.h) and in the tests:
//   O1 slots tile the block: every slot is at least 2 bytes long, the last one ends with the block
//
//   O2 the records of an object fill its slot; a null has a length of 12, any other record one that
//      is a multiple of 8 and at least 16
//
//   O3 no id stands in two records of one object
//
//   O4 a block marked full has less than a quarter of its bytes in placeholders; only used and full
//      blocks hold objects, and every marked block lies in the file
//
//   O5 every object with an id stands in index 0 with its handle
//
//   O6 every entry of an index points at an object that has the entry's key in the index's
//      property, and every object that has one has exactly one entry
//
//   O7 every object of a server has an id: by nothing else can it be found
//
//   O8 the payload of a record can be read as a value of its type
#pragma once

#include <cstddef>
#include <cstdint>

namespace mdb {

namespace slot_layout {
inline constexpr uint32_t word = 0;
inline constexpr uint32_t records = 4;
/// Bit of the slot word that tells a placeholder from an object.
inline constexpr uint32_t kPlaceholderBit = 1;
/// A slot word below this one is corruption: a walk over the block would never end.
inline constexpr uint32_t kSmallestWord = 2;
/// A slot shorter than this holds no records.
inline constexpr uint32_t kSmallestWithRecords = 5;
static_assert(records == word + sizeof(uint32_t), "the records follow the slot word");
}  // namespace slot_layout

namespace record_layout {
inline constexpr uint32_t id = 0;
inline constexpr uint32_t length = 4;
inline constexpr uint32_t type = 8;
inline constexpr uint32_t payload = 12;
/// Length of a record without payload, the form of an explicit null.
inline constexpr uint32_t kHeadLength = payload;
/// Lengths of records with a payload, and starts of list elements, are multiples of this.
inline constexpr uint32_t kAlignment = 8;
inline constexpr uint32_t kTypeMask = 0x0FFFFFFF;
inline constexpr uint32_t kNullBit = 1U << 30;
inline constexpr uint32_t kInheritedBit = 1U << 31;
static_assert(length == id + sizeof(uint32_t) && type == length + sizeof(uint32_t) &&
                  payload == type + sizeof(uint32_t),
              "the table above and these offsets are one contract");
}  // namespace record_layout

namespace list_layout {
inline constexpr uint32_t count = 0;
inline constexpr uint32_t elements = 8;
/// Distance from an element's type id to that of a list of it.
inline constexpr uint32_t kTypeDistance = 256;
}  // namespace list_layout

namespace mark_layout {
inline constexpr uint32_t marked = 0;
inline constexpr uint32_t first_words = 1;
inline constexpr uint32_t second_words = 4;
inline constexpr uint32_t kLength = 16;
static_assert(second_words + 3 * sizeof(uint32_t) == kLength, "three ids of five bytes and a flag");
}  // namespace mark_layout

/// `size` rounded up to the next multiple of 8.
constexpr uint32_t round_up_to_record(uint32_t size) {
    return (size + record_layout::kAlignment - 1) / record_layout::kAlignment *
           record_layout::kAlignment;
}
static_assert(round_up_to_record(0) == 0 && round_up_to_record(1) == 8 &&
              round_up_to_record(8) == 8);

}  // namespace mdb
