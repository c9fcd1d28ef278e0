// The form in which a copy of a database travels from the server that has it open to the program
// that keeps it: one stream of records. All numbers are big-endian.
//
//   record    width  field
//   0         4      kind
//   4         4      L, length of the payload, at most kMostPayload
//   8         L      payload
//
//   "SBEG"    24     version, 1 (4); block size (4); length of the database file (8); length of the
//                    journal's file, 0 when the journal lies in the database file (4); 0 (4)
//   "SBLK"    8+n    offset in the database file (8), a multiple of the block size; n bytes, whole
//                    blocks
//   "SEND"    12     number of bytes in all "SBLK" (8); CRC-32 over everything in the stream before
//                    it (4)
//   "SERR"    L      a text for people: there will be no copy
//
// It is asked for by one line of text, through a socket beside the database (kSocketSuffix).
//
// A copy of a database of one block of 1024 bytes with a journal of 65536 bytes begins with
//   53 42 45 47  00 00 00 18  00 00 00 01  00 00 04 00
//   00 00 00 00  00 00 04 00  00 01 00 00  00 00 00 00
//   53 42 4C 4B  00 00 04 08  00 00 00 00  00 00 00 00  ...
//
// Invariants:
//   S1 the first record is "SBEG" or "SERR", the last one "SEND" or "SERR"; neither stands
//      elsewhere
//
//   S2 in a stream that ends with "SEND" each block of the file stands in exactly one "SBLK"
//
//   S3 blocks may come in any order
#pragma once

#include <cstdint>
#include <string_view>

namespace mdb::snapshot_layout {

/// What the name of the database's file ends with in the name of the socket.
inline constexpr std::string_view kSocketSuffix = ".control";
/// The request, without the line end behind it.
inline constexpr std::string_view kRequest = "backup 1";

inline constexpr uint32_t kBegin = 0x53424547;    // "SBEG"
inline constexpr uint32_t kBlocks = 0x53424C4B;   // "SBLK"
inline constexpr uint32_t kEnd = 0x53454E44;      // "SEND"
inline constexpr uint32_t kFailure = 0x53455252;  // "SERR"

/// Within a record.
inline constexpr uint32_t kind = 0;
inline constexpr uint32_t payload_length = 4;
inline constexpr uint32_t kHeadSize = 8;
/// No block is larger than this in a database that can be copied.
inline constexpr uint32_t kMostBlocks = 1U << 20;
inline constexpr uint32_t kMostPayload = kMostBlocks + 8;

/// Within the payload of a begin record.
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t version = 0;
inline constexpr uint32_t block_size = 4;
inline constexpr uint32_t file_length = 8;
inline constexpr uint32_t journal_length = 16;
inline constexpr uint32_t kBeginSize = 24;

/// Within the payload of a record of blocks.
inline constexpr uint32_t offset = 0;
inline constexpr uint32_t bytes = 8;
static_assert(kMostPayload == bytes + kMostBlocks);

/// Within the payload of an end record.
inline constexpr uint32_t total = 0;
inline constexpr uint32_t crc = 8;
inline constexpr uint32_t kEndSize = 12;

}  // namespace mdb::snapshot_layout
