// The layout of the journal. Writer, replay, formatter and tests take their offsets from here. All
// numbers are big-endian; J is the journal's length, which fits in 32 bits.
//
//   header    width  field
//   0         4      magic "JHDR"
//   4         4      version, 1
//   8         8      reserved
//   16        16     index entry 0, of the first half
//   32        16     index entry 1, of the second half
//   48               the first half begins; the second at J / 2, rounded up to a multiple of 8
//
//   index entry
//   0         8      serial of the half
//   8         4      position of its first entry
//   12        4      CRC-32 of the 12 bytes before
//
// A half is filled with entries whose lengths are multiples of 8, up to (H - 8) rounded down to a
// multiple of 8, H being J / 2 or J. The last 8 bytes are kept for a redirection.
//
//   begin     16     "TBEG", 4 bytes left as they were, serial of the half (8)
//   update    20+L+F "TUPD", L (4), offset in the database file (8), 0 (4), L bytes, F bytes of
//                    fill left as they were
//   end       8      "TEND", CRC-32 over the begin entry and all updates with their fill
//   redirect  8      "TRED", position at which the log goes on (4)
//
// The byte AB written to offset 8192 by a transaction in a half of serial 7 (.. is what stood there
// before):
//   54 42 45 47  .. .. .. ..  00 00 00 00  00 00 00 07
//   54 55 50 44  00 00 00 01  00 00 00 00  00 00 20 00  00 00 00 00  AB .. .. ..
//   54 45 4E 44  CRC-32 of the 40 bytes
//
// Invariants:
//   J1 the serial counts fillings of halves: each has a serial above that of the other half, so
//      what a half still holds from its last use has a smaller serial than its index entry
//
//   J2 a transaction lies in one half, with its end
//
//   J3 an index entry is durable before the first transaction of its half is written
//
//   J4 what a half held is in the database file, durably, before the index entry of the other half
//      is written
//
//   J5 a transaction is durable in the journal before any byte of it is written to the database
//      file
#pragma once

#include <cstdint>

namespace mdb::journal_layout {

inline constexpr uint32_t kMagic = 0x4A484452;  // "JHDR"
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t magic = 0;
inline constexpr uint32_t version = 4;
inline constexpr uint32_t index_entries = 16;
inline constexpr uint32_t kIndexEntrySize = 16;
inline constexpr uint32_t kFirstHalf = 48;
static_assert(kFirstHalf == index_entries + 2 * kIndexEntrySize);

/// Within an index entry.
inline constexpr uint32_t index_serial = 0;
inline constexpr uint32_t index_position = 8;
inline constexpr uint32_t index_crc = 12;
static_assert(index_crc + sizeof(uint32_t) == kIndexEntrySize);

/// Entries begin at multiples of this.
inline constexpr uint32_t kAlignment = 8;

inline constexpr uint32_t kBegin = 0x54424547;     // "TBEG"
inline constexpr uint32_t kUpdate = 0x54555044;    // "TUPD"
inline constexpr uint32_t kEnd = 0x54454E44;       // "TEND"
inline constexpr uint32_t kRedirect = 0x54524544;  // "TRED"

/// Within a begin entry.
inline constexpr uint32_t begin_serial = 8;
inline constexpr uint32_t kBeginSize = 16;
/// Within an update entry.
inline constexpr uint32_t update_length = 4;
inline constexpr uint32_t update_offset = 8;
inline constexpr uint32_t update_zero = 16;
inline constexpr uint32_t update_data = 20;
/// Within an end entry.
inline constexpr uint32_t end_crc = 4;
inline constexpr uint32_t kEndSize = 8;
/// Within a redirection.
inline constexpr uint32_t redirect_target = 4;
inline constexpr uint32_t kRedirectSize = 8;

/// Bytes that an update of `length` bytes takes, fill included.
constexpr uint64_t update_size(uint64_t length) {
    return (update_data + length + 7) / 8 * 8;
}
static_assert(update_size(4) == 24 && update_size(5) == 32 && update_size(0) == 24);

/// First position of half 0 or 1 of a journal of `length` bytes.
constexpr uint32_t half_start(uint32_t length, int half) {
    return half == 0 ? kFirstHalf : static_cast<uint32_t>((uint64_t{length} / 2 + 7) / 8 * 8);
}
/// The position at which entries of half 0 or 1 must end.
constexpr uint32_t half_limit(uint32_t length, int half) {
    const uint32_t end = half == 0 ? length / 2 : length;
    return end < kRedirectSize ? 0 : (end - kRedirectSize) / 8 * 8;
}
static_assert(half_start(1000, 1) == 504 && half_limit(1000, 0) == 488 &&
              half_limit(1000, 1) == 992);

}  // namespace mdb::journal_layout
