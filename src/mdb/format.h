// Makes a new, empty database: the file with header and allocation map, and its journal with every
// block written. The server itself never creates a database.
#pragma once

#include <cstdint>
#include <string>

#include "platform/file.h"

namespace mdb {

struct FormatOptions {
    std::string database_path;
    std::string journal_path;
    /// A power of two, at least 1024.
    uint32_t block_size = 4096;
    uint64_t journal_size_bytes = 64ULL << 20;
    /// How many bytes of blocks the allocation map can describe, at least.
    uint64_t capacity_bytes = 4ULL << 30;
    /// Replace files that exist.
    bool force = false;
};

/// Writes both files under temporary names, makes them durable and only then gives them their
/// names, journal first, so that a crash at any moment leaves no database or a whole one. The files
/// belong to their owner alone. The indexes are made at the first start. Throws error_generic with
/// a text for people when an argument is out of range, a file exists and `force` isn't set, or the
/// database is in use; error_io when the disk fails.
void format_database(platform::FileSystem& files, const FormatOptions& options);

}  // namespace mdb
