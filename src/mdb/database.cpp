#include "mdb/database.h"

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
    header_.verify();
}

void Database::read_header(const std::string& journal_path) {
    load_header();
    store_.set_block_size(header_.block_size());
    logger.info("Using {} byte MDB blocks", block_size());
    if (header_.journal_type() == header_layout::kJournalInFile) {
        journal_.journal_open(store_.path(), store_.block_offset(header_.journal_first_block()),
                              uint64_t{header_.journal_block_count()} * block_size(), false);
        return;
    }
    journal_.journal_open(journal_path.empty() ? header_.journal_path() : journal_path, 0, 0, true);
}

void Database::init_storage() {
    journal_.journal_start();
    // What was replayed may have changed the header.
    const uint32_t opened_with = block_size();
    load_header();
    if (header_.block_size() != opened_with)
        throw error_consistency(fmt::format("Replay changed the block size from {} to {} bytes",
                                            opened_with, header_.block_size()));
    allocator_->load_map(header_.map_start(), header_.first_data_block());
    serializer_ = std::make_unique<Serializer>(block_size());
}

void Database::write_header(const Header& header) {
    header.verify();
    journal_.checkpoint_and_flip();
    store_.byte_write(header.data(), 0, Header::kSize, false);
    store_.sync_store();
    header_ = header;
}

void Database::journal_header(const Header& header) {
    header.verify();
    journal_.journal_update(header.data(), Header::kSize, 0);
    header_ = header;
}

}  // namespace mdb
