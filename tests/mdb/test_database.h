// A small database in a folder of its own, opened, dropped as by a killed process, and opened
// again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mdb/database.h"
#include "mdb/format.h"
#include "support/fake_clock.h"
#include "support/temp_dir.h"

namespace mdb_test {

using Bytes = std::vector<uint8_t>;

/// Bytes of text "54 42 .." in hexadecimal, blanks ignored.
inline Bytes hex(const std::string& text) {
    Bytes bytes;
    std::string digits;
    for (const char c : text) {
        if (c == ' ' || c == '\n') continue;
        digits += c;
        if (digits.size() < 2) continue;
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
        digits.clear();
    }
    return bytes;
}

class TestDatabase {
  public:
    static constexpr uint32_t kBlockSize = 1024;

    explicit TestDatabase(uint64_t journal_size = 64 * 1024, uint64_t capacity = 1 << 20) {
        mdb::FormatOptions options;
        options.database_path = dir.file("db");
        options.journal_path = dir.file("journal");
        options.block_size = kBlockSize;
        options.journal_size_bytes = journal_size;
        options.capacity_bytes = capacity;
        mdb::format_database(files, options);
    }

    mdb::Database& open(uint32_t buffer_blocks = 64) {
        close();
        mdb::Settings settings;
        settings.database_path = dir.file("db");
        settings.buffer_blocks = buffer_blocks;
        database.emplace(settings, files, clock);
        return *database;
    }
    /// Drops the database as the death of the process would.
    void close() { database.reset(); }

    [[nodiscard]] Bytes read(const std::string& name) const {
        std::ifstream in(dir.file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void write(const std::string& name, const Bytes& bytes) const {
        std::ofstream out(dir.file(name), std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
    }
    /// Some bytes of a file.
    [[nodiscard]] Bytes part(const std::string& name, size_t offset, size_t length) const {
        const Bytes all = read(name);
        return {all.begin() + static_cast<std::ptrdiff_t>(offset),
                all.begin() + static_cast<std::ptrdiff_t>(offset + length)};
    }

    support::TempDir dir;
    platform::SystemFiles files;
    support::FakeClock clock;
    std::optional<mdb::Database> database;
};

/// One update of `text` at `offset`; needs an open transaction.
inline void put(mdb::Database& database, uint64_t offset, const std::string& text) {
    database.journal().journal_update(text.data(), text.size(), offset);
}

/// What the open transaction, or without one anybody, sees at `offset`, which must lie in one
/// block.
inline std::string see(mdb::Database& database, uint64_t offset, size_t length) {
    const uint32_t block = database.store().offset_block(offset);
    const mdb::BlockBuffer bytes = database.cache().private_block(block);
    const auto* text = reinterpret_cast<const char*>(bytes.data());
    return {text + offset % database.block_size(), length};
}

}  // namespace mdb_test
