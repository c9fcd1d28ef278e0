// A database and its journal as two files that are made under temporary names and get their own
// names together: a fresh journal, and the order of renames and syncs in which a crash at any
// moment leaves no database where another one's journal stands.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "mdb/journal_layout.h"
#include "platform/file.h"

namespace mdb::detail {

/// Header and index entries of a journal without a transaction.
[[nodiscard]] std::array<std::byte, journal_layout::kFirstHalf> fresh_journal_head();

/// Writes `length` zero bytes at `offset`.
void write_zeros(platform::File& file, uint64_t offset, uint64_t length);

/// Makes the file of a journal without a transaction in place of any other, every block written,
/// and syncs it.
void write_fresh_journal(platform::FileSystem& files, const std::string& path,
                         uint64_t length_bytes);

/// Locks what is to be replaced, so that no running server loses its files. Null if there is
/// nothing. Throws error_generic when a file is there and `force` isn't set, or when it is in use.
[[nodiscard]] std::unique_ptr<platform::File> lock_existing(platform::FileSystem& files,
                                                            const std::string& path, bool force);

/// Two files that are whole and synced under the names made by `suffix`, to get their own.
struct FilePair {
    std::string database_path;
    std::string journal_path;
    std::string suffix;

    [[nodiscard]] std::string new_database() const { return database_path + suffix; }
    [[nodiscard]] std::string new_journal() const { return journal_path + suffix; }
};

/// Gives the files their names, with `ending` behind them, replacing others that have them. A new
/// journal never stands beside an old database, nor a database without its journal.
void publish(platform::FileSystem& files, const FilePair& pair, const std::string& ending = "");

}  // namespace mdb::detail
