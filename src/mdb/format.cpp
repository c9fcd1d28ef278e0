#include "mdb/format.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "mdb/block_layout.h"
#include "mdb/detail/file_pair.h"
#include "mdb/errors.h"
#include "mdb/header_layout.h"

namespace mdb {

namespace {

constexpr uint64_t kSmallestJournal = 1024;

/// Where things lie in a new database file: header, two roots, map, and then data.
struct Plan {
    uint32_t first_root = 1;
    uint32_t second_root = 2;
    uint32_t map_start = 3;
    uint32_t map_blocks = 0;

    [[nodiscard]] uint32_t first_data_block() const { return map_start + map_blocks; }
};

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

Header make_header(const FormatOptions& options, const Plan& plan) {
    Header::Blank blank;
    blank.block_size = options.block_size;
    blank.journal_path = options.journal_path;
    blank.roots = {plan.first_root, plan.second_root};
    blank.map_start = plan.map_start;
    blank.first_data_block = plan.first_data_block();
    const Header header = Header::make(blank);
    header.verify();
    return header;
}

void write_database(platform::FileSystem& files, const FormatOptions& options, const Plan& plan,
                    const Header& header, const std::string& path) {
    files.remove(path);
    const auto file = files.create(path);
    // The map is written, not left a hole: a mark must never fail for want of disk space.
    detail::write_zeros(*file, 0, uint64_t{plan.first_data_block()} * options.block_size);
    file->write_at(header.data(), Header::kSize, 0);
    file->sync_data();
}

/// What a failure has left; the next attempt would remove it too.
void remove_temporaries(platform::FileSystem& files, const detail::FilePair& pair) {
    for (const std::string& path : {pair.new_journal(), pair.new_database()}) {
        try {
            files.remove(path);
        } catch (const error::ESystemError&) {
            continue;  // the disk that failed may fail here as well; the first failure is told
        }
    }
}

}  // namespace

void format_database(platform::FileSystem& files, const FormatOptions& options) {
    check_options(options);
    const Plan plan = make_plan(options);
    // Refuses a path that the header can't hold before anything is written.
    const Header header = make_header(options, plan);
    const detail::FilePair pair{options.database_path, options.journal_path, ".format"};
    try {
        const auto old_database =
            detail::lock_existing(files, options.database_path, options.force);
        const auto old_journal = detail::lock_existing(files, options.journal_path, options.force);
        detail::write_fresh_journal(files, pair.new_journal(), options.journal_size_bytes);
        write_database(files, options, plan, header, pair.new_database());
        detail::publish(files, pair);
    } catch (const error::ESystemError& failure) {
        remove_temporaries(files, pair);
        throw error_io(
            fmt::format("Cannot format \"{}\": {}", options.database_path, failure.text()));
    }
}

}  // namespace mdb
