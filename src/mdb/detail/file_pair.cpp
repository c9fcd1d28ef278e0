#include "mdb/detail/file_pair.h"

#include <algorithm>
#include <vector>

#include "mdb/errors.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace mdb::detail {

namespace {

/// Small, as the kernel keeps what one call wrote in one piece of its cache where it can, and walks
/// over the whole piece for every later write into it.
constexpr size_t kChunk = 16 * 1024;
/// Number of the first filling of the first half.
constexpr uint64_t kFirstSerial = 1;

}  // namespace

std::array<std::byte, journal_layout::kFirstHalf> fresh_journal_head() {
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
    return head;
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

void write_fresh_journal(platform::FileSystem& files, const std::string& path,
                         uint64_t length_bytes) {
    files.remove(path);
    const auto file = files.create(path);
    // Every block is written, so that a commit never has to allocate one.
    write_zeros(*file, 0, length_bytes);
    const auto head = fresh_journal_head();
    file->write_at(head.data(), head.size(), 0);
    file->sync_data();
}

std::unique_ptr<platform::File> lock_existing(platform::FileSystem& files, const std::string& path,
                                              bool force) {
    if (!files.exists(path)) return nullptr;
    if (!force) throw error_generic(fmt::format("\"{}\" exists already", path));
    auto file = files.open(path);
    if (!file->try_lock())
        throw error_generic(fmt::format("\"{}\" is in use by another process", path));
    return file;
}

void publish(platform::FileSystem& files, const FilePair& pair, const std::string& ending) {
    const std::string database = pair.database_path + ending;
    const std::string journal = pair.journal_path + ending;
    files.remove(database);
    files.sync_folder_of(database);
    files.rename(pair.new_journal(), journal);
    files.sync_folder_of(journal);
    files.rename(pair.new_database(), database);
    files.sync_folder_of(database);
}

}  // namespace mdb::detail
