#include "mdb/database.h"

#include <vector>

#include "log/log.h"

namespace mdb {

namespace {

const logging::Logger logger{"objectio"};

}  // namespace

Database::Database(const Settings& settings, platform::FileSystem& files,
                   const platform::Clock& clock)
    : store_(files, settings.database_path), journal_(files, store_, clock) {
    read_header(settings.journal_path);
    pool_ = std::make_unique<BlockPool>(block_size());
    cache_ = std::make_unique<BlockCache>(store_, journal_, *pool_, settings.buffer_blocks);
    allocator_ = std::make_unique<Allocator>(store_, journal_, *cache_);
    journal_.attach(*cache_, *allocator_);
    init_storage();
}

void Database::load_header() {
    if (store_.file_length() < Header::kSize)
        throw error_fubar("MDB file does not look like a Tarmik Meta Database");
    store_.byte_read(header_.data(), 0, Header::kSize);
}

void Database::read_header(const std::string& journal_path) {
    load_header();
    // A power cut may have torn a write of the layout area: the journal then holds it whole.
    header_.verify_identity();
    store_.set_block_size(header_.block_size());
    logger.info("Using {} byte MDB blocks", block_size());
    if (header_.journal_type() == header_layout::kJournalInFile) {
        journal_.journal_open(store_.path(), store_.block_offset(header_.journal_first_block()),
                              uint64_t{header_.journal_block_count()} * block_size(), false);
        return;
    }
    journal_.journal_open(journal_path.empty() ? header_.journal_path() : journal_path, 0, 0, true);
}

// A file that lost its end must not be taken for a small one: a replay would lay what the journal
// has of the lost blocks over a file of zeros. The file has grown durably before a mark of a new
// block is committed, so even an old map tells how much of it there was.
void Database::check_not_shortened() {
    const uint64_t map_begin = store_.block_offset(header_.map_start());
    const uint64_t map_end = store_.block_offset(header_.first_data_block());
    const uint64_t length = store_.file_length();
    if (map_end < map_begin || map_end > length)
        throw error_need_repair(
            fmt::format("Database of {} bytes has not all of its allocation map, which ends at {}",
                        length, map_end));
    const uint64_t blocks_there = length / block_size();
    std::vector<uint8_t> marks(block_size());
    for (uint64_t at = map_begin + blocks_there / block_size() * block_size(); at < map_end;
         at += block_size()) {
        store_.byte_read(marks.data(), at, marks.size());
        for (uint64_t i = 0; i < marks.size(); ++i) {
            const uint64_t block = at - map_begin + i;
            // A mark that no block can have says nothing; the walk over the map names it.
            if (block >= blocks_there && marks[i] != 0 && is_mark(marks[i]))
                throw error_need_repair(
                    fmt::format("Database was longer once: it has {} bytes, but block {} is in use",
                                length, block));
        }
    }
}

void Database::check_before_replay() {
    journal_.overlay_unwritten(header_.data(), Header::kSize, 0);
    header_.verify();
    if (header_.block_size() != block_size())
        throw error_consistency(fmt::format("Replay changes the block size from {} to {} bytes",
                                            block_size(), header_.block_size()));
    check_not_shortened();
}

// A journal inside the file has nothing but the marks of its blocks to keep others out of them.
void Database::check_journal_region() {
    if (header_.journal_type() != header_layout::kJournalInFile) return;
    const uint64_t first = header_.journal_first_block();
    const uint64_t end = first + header_.journal_block_count();
    const auto refuse = [&](uint64_t block, const char* what) {
        throw error_fubar(
            fmt::format("Block {} of the journal in blocks {} to {} {}", block, first, end, what));
    };
    for (uint64_t block = first; block < end; ++block) {
        const auto number = static_cast<uint32_t>(block);
        if (block == 0 || (block >= header_.map_start() && block < header_.first_data_block()))
            refuse(block, "is one of the header or the map");
        for (uint32_t n = 0; n < header_.index_count(); ++n)
            if (header_.index_root(n) == block) refuse(block, "is the root of an index");
        if (block < header_.first_data_block() || block / block_size() >= allocator_->map_blocks())
            continue;
        const mark_t mark = allocator_->query_mark(number);
        if (mark == mark_t::empty || mark == mark_t::used || mark == mark_t::full)
            refuse(block, "has a mark by which it could be handed out");
    }
}

void Database::init_storage() {
    journal_.journal_start([this] { check_before_replay(); });
    load_header();
    header_.verify();
    allocator_->load_map(header_.map_start(), header_.first_data_block());
    check_journal_region();
    serializer_ = std::make_unique<Serializer>(block_size());
}

void Database::write_header(const Header& header) {
    header.verify();
    journal_.checkpoint_and_flip();
    Transaction transaction(journal_);
    journal_.journal_update(header.data(), Header::kSize, 0);
    transaction.commit(false);
    journal_.guarded([&] {
        store_.byte_write(header.data(), 0, Header::kSize, false);
        store_.sync_store();
    });
    header_ = header;
}

void Database::journal_header(const Header& header) {
    header.verify();
    journal_.journal_update(header.data(), Header::kSize, 0);
}

}  // namespace mdb
