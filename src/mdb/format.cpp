#include "mdb/format.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>
#include <vector>

#include "mdb/block_layout.h"
#include "mdb/errors.h"
#include "mdb/header_layout.h"
#include "mdb/journal_layout.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace mdb {

namespace {

constexpr uint64_t kSmallestJournal = 1024;
/// Small, as the kernel keeps what one call wrote in one piece of its cache where it can, and walks
/// over the whole piece for every later write into it.
constexpr size_t kChunk = 16 * 1024;
/// Number of the first filling of the first half.
constexpr uint64_t kFirstSerial = 1;

/// Where things lie in a new database file: header, two roots, map, and then data.
struct Plan {
    uint32_t first_root = 1;
    uint32_t second_root = 2;
    uint32_t map_start = 3;
    uint32_t map_blocks = 0;

    [[nodiscard]] uint32_t first_data_block() const { return map_start + map_blocks; }
};

std::string temporary_name(const std::string& path) {
    return path + ".format";
}

void check_options(const FormatOptions& options) {
    if (!std::has_single_bit(options.block_size) || options.block_size < kSmallestBlockSize)
        throw error_generic(
            fmt::format("Block size is {} bytes - but it must be a power of two of "
                        "at least {}",
                        options.block_size, kSmallestBlockSize));
    if (options.journal_size_bytes < kSmallestJournal ||
        options.journal_size_bytes > std::numeric_limits<uint32_t>::max())
        throw error_generic(fmt::format("Journal size is {} bytes - but it must be {} to {}",
                                        options.journal_size_bytes, kSmallestJournal,
                                        std::numeric_limits<uint32_t>::max()));
    if (options.database_path.empty() || options.journal_path.empty() ||
        options.database_path == options.journal_path)
        throw error_generic("Database and journal must be two different files");
}

Plan make_plan(const FormatOptions& options) {
    const uint64_t block_size = options.block_size;
    const uint64_t blocks = (options.capacity_bytes + block_size - 1) / block_size;
    if (blocks > std::numeric_limits<uint32_t>::max())
        throw error_generic(fmt::format("{} bytes are more than 32 bits can number in blocks of {}",
                                        options.capacity_bytes, block_size));
    Plan plan;
    plan.map_blocks =
        static_cast<uint32_t>(std::max<uint64_t>((blocks + block_size - 1) / block_size, 1));
    return plan;
}

void write_zeros(platform::File& file, uint64_t offset, uint64_t length) {
    const std::vector<std::byte> zeros(static_cast<size_t>(std::min<uint64_t>(length, kChunk)));
    while (length > 0) {
        const size_t part = static_cast<size_t>(std::min<uint64_t>(length, zeros.size()));
        file.write_at(zeros.data(), part, offset);
        offset += part;
        length -= part;
    }
}

void write_database(platform::FileSystem& files, const FormatOptions& options, const Plan& plan) {
    Header::Blank blank;
    blank.block_size = options.block_size;
    blank.journal_path = options.journal_path;
    blank.roots = {plan.first_root, plan.second_root};
    blank.map_start = plan.map_start;
    blank.first_data_block = plan.first_data_block();
    const Header header = Header::make(blank);
    header.verify();

    const std::string path = temporary_name(options.database_path);
    files.remove(path);
    const auto file = files.create(path);
    // The map is written, not left a hole: a mark must never fail for want of disk space.
    write_zeros(*file, 0, uint64_t{plan.first_data_block()} * options.block_size);
    file->write_at(header.data(), Header::kSize, 0);
    file->sync_data();
}

void write_journal(platform::FileSystem& files, const FormatOptions& options) {
    namespace layout = journal_layout;
    std::array<std::byte, layout::kFirstHalf> head{};
    util::store_be32(head.data() + layout::magic, layout::kMagic);
    util::store_be32(head.data() + layout::version, layout::kVersion);
    std::byte* entry = head.data() + layout::index_entries;
    util::store_be64(entry + layout::index_serial, kFirstSerial);
    util::store_be32(entry + layout::index_position, layout::kFirstHalf);
    security::Crc32 crc;
    crc.update(layout::index_crc, entry);
    util::store_be32(entry + layout::index_crc, crc.value());

    const std::string path = temporary_name(options.journal_path);
    files.remove(path);
    const auto file = files.create(path);
    // Every block is written, so that a commit never has to allocate one.
    write_zeros(*file, 0, options.journal_size_bytes);
    file->write_at(head.data(), head.size(), 0);
    file->sync_data();
}

/// Locks what is to be replaced, so that no running server loses its files.
std::unique_ptr<platform::File> lock_existing(platform::FileSystem& files, const std::string& path,
                                              bool force) {
    if (!files.exists(path)) return nullptr;
    if (!force) throw error_generic(fmt::format("\"{}\" exists already", path));
    auto file = files.open(path);
    if (!file->try_lock())
        throw error_generic(fmt::format("\"{}\" is in use by another process", path));
    return file;
}

/// Gives the files their names. A new journal never stands beside an old database, nor a database
/// without its journal.
void publish(platform::FileSystem& files, const FormatOptions& options) {
    files.remove(options.database_path);
    files.sync_folder_of(options.database_path);
    files.rename(temporary_name(options.journal_path), options.journal_path);
    files.sync_folder_of(options.journal_path);
    files.rename(temporary_name(options.database_path), options.database_path);
    files.sync_folder_of(options.database_path);
}

}  // namespace

void format_database(platform::FileSystem& files, const FormatOptions& options) {
    check_options(options);
    const Plan plan = make_plan(options);
    try {
        const auto old_database = lock_existing(files, options.database_path, options.force);
        const auto old_journal = lock_existing(files, options.journal_path, options.force);
        write_journal(files, options);
        write_database(files, options, plan);
        publish(files, options);
    } catch (const error::ESystemError& failure) {
        throw error_io(
            fmt::format("Cannot format \"{}\": {}", options.database_path, failure.text()));
    }
}

}  // namespace mdb
