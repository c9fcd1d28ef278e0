// Large objects: values too big for an object block, each kept in a chain of whole blocks
// (large_object_layout.h) that goes to the file past the journal. Only the marks of the blocks are
// journalled. An object refers to one by the number of its first block. For rare, big values: each
// write costs a sync of the file, and reads go to the file every time.
//
// To replace a value: open a transaction, free_lob() the old one, write_lob() the new one, store
// the new number in the object, commit. Whenever the power fails, the object has the old value or
// the new one, whole: no block is written to that an older life of it could still claim (see
// docs/file-format.md).
//
// An exception leaves the open transaction to the caller, who aborts it: then every block that was
// taken is empty again and every one that was freed is what it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace mdb {

class Database;

/// Stores `bytes` and returns the first block. On return they are on stable storage; they belong to
/// somebody once the open transaction commits with the number in some object. Makes earlier
/// asynchronous commits durable. Throws error_internal without a transaction, error_dbnospace,
/// error_transact when the journal has no room for the marks, error_bigobj for more bytes than 32
/// bits can count, error_io.
[[nodiscard]] uint32_t write_lob(Database& database, std::span<const std::byte> bytes);

/// Reads all of the large object that begins at `block`. The marks are not looked at: what is whole
/// can be had. `out` is unspecified after an exception and never longer than the chain is, however
/// damaged it is. Throws error_internal for a chain that contradicts itself, its subclass
/// error_range when it leads out of the file, error_io.
void read_lob(Database& database, uint32_t block, std::vector<std::byte>& out);

/// Empties all blocks of the large object that begins at `block`, which must have the mark of one.
/// They are handed out to large objects again after the outermost commit. The data isn't cleared.
/// Throws error_internal without a transaction and for a chain that contradicts itself or leads to
/// a block of another kind, error_range when it leads out of the file, error_transact, error_io.
void free_lob(Database& database, uint32_t block);

}  // namespace mdb
