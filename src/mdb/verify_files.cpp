#include "mdb/verify_files.h"

#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <span>
#include <utility>

#include "mdb/database.h"
#include "mdb/detail/verify_journal.h"
#include "mdb/errors.h"
#include "mdb/header_layout.h"
#include "platform/clock.h"
#include "util/byte_order.h"

namespace mdb {

namespace {

class FileVerifier {
  public:
    FileVerifier(platform::FileSystem& files, const VerifyOptions& options)
        : files_(files), options_(options), report_(options.most_faults) {}

    FileVerification run(const std::string& database_path, const std::string& journal_path) {
        {
            const auto file = open(database_path);
            result_.database_bytes = file->size();
            if (!read_header(*file)) return finish();
            result_.block_size = header_.block_size();
            if (header_is_whole() &&
                uint64_t{header_.first_data_block()} * result_.block_size > file->size()) {
                check_marks(*file);
                return finish();
            }
            if (!look_at_journal(*file, journal_path)) return finish();
        }
        const platform::SystemClock clock;
        try {
            Database database({.database_path = database_path,
                               .journal_path = journal_path,
                               .buffer_blocks = 1024},
                              files_, clock);
            result_.opened = true;
            result_.verification = verify(database, options_);
            check_journal_against_marks(database);
        } catch (const error::Exception& failure) {
            explain(database_path, failure.text());
        }
        return finish();
    }

  private:
    std::unique_ptr<platform::File> open(const std::string& path) {
        try {
            auto file = files_.open(path);
            if (!file->try_lock())
                throw error_open(fmt::format(
                    "\"{}\" is in use by a running server; stop it, or look at a backup", path));
            return file;
        } catch (const error::ESystemError& failure) {
            throw error_open(
                fmt::format("Cannot open \"{}\": {}", path, std::strerror(failure.code())));
        }
    }

    /// A layout area that a power cut has torn is mended by the replay.
    [[nodiscard]] bool header_is_whole() const {
        try {
            header_.verify();
            return true;
        } catch (const error_generic&) {
            return false;
        }
    }

    bool read_header(platform::File& file) {
        size_t got = 0;
        try {
            got = file.read_at(header_.data(), Header::kSize, 0);
            if (got == Header::kSize) {
                header_.verify_identity();
                return true;
            }
            report_.add("H1", 0, static_cast<uint32_t>(got),
                        fmt::format("the file has {} bytes, fewer than its header", got));
        } catch (const error_generic& failure) {
            report_.add("H1", 0, wrong_header_field(), failure.text());
        } catch (const error::ESystemError& failure) {
            report_.add("C1", 0, 0, failure.text());
        }
        return false;
    }

    /// Where in the header the first field lies that verify() refuses.
    [[nodiscard]] uint32_t wrong_header_field() const {
        const auto word = [this](uint32_t at) { return util::load_be32(header_.data() + at); };
        if (word(header_layout::magic) != header_layout::kMagic) return header_layout::magic;
        if (word(header_layout::version) != header_layout::kVersion) return header_layout::version;
        const uint32_t size = header_.block_size();
        if (size < kSmallestBlockSize || (size & (size - 1)) != 0) return header_layout::block_size;
        if (header_.journal_type() != header_layout::kJournalInFile &&
            header_.journal_type() != header_layout::kJournalApart)
            return header_layout::journal_type;
        return header_layout::layout_offset;
    }

    /// False when there is no journal that could be opened with the database.
    bool look_at_journal(platform::File& database, const std::string& configured) {
        const bool inner = header_.journal_type() == header_layout::kJournalInFile;
        const uint64_t block_size = header_.block_size();
        uint64_t begin = 0;
        uint64_t length = 0;
        std::unique_ptr<platform::File> own;
        if (inner) {
            begin = header_.journal_first_block() * block_size;
            length = header_.journal_block_count() * block_size;
        } else {
            own = open(configured.empty() ? header_.journal_path() : configured);
            length = own->size();
        }
        platform::File& file = inner ? database : *own;
        if (length == 0 || length > UINT32_MAX || begin > file.size() ||
            length > file.size() - begin) {
            report_.add("J", 0, 0,
                        fmt::format("a journal of {} bytes from {} on cannot be in a file of {}",
                                    length, begin, file.size()));
            return false;
        }
        try {
            const auto mapping = files_.map(file, begin, static_cast<size_t>(length));
            scan_ = detail::scan_journal({mapping->data(), mapping->size()}, header_.block_size(),
                                         blocks_in_map(), report_);
        } catch (const error::ESystemError& failure) {
            report_.add("J", 0, 0, failure.text());
            return false;
        }
        result_.journal = scan_.state;
        return true;
    }

    /// All that 32 bits can number when the header can't tell.
    [[nodiscard]] uint64_t blocks_in_map() const {
        if (!header_is_whole()) return uint64_t{1} << 32;
        return uint64_t{header_.first_data_block() - header_.map_start()} * header_.block_size();
    }

    /// B4. The database has been replayed, so its marks are those after all the updates.
    void check_journal_against_marks(Database& database) {
        const uint64_t reach = uint64_t{database.allocator().map_blocks()} * database.block_size();
        for (const uint32_t block : scan_.touched)
            if (block < reach && database.allocator().query_mark(block) == mark_t::lob)
                report_.add("B4", block, 0,
                            "belongs to a large object, but the journal has an update for it");
    }

    /// The database cannot be opened: what is wrong with its map, if that is it, else just why.
    void explain(const std::string& database_path, const std::string& text) {
        const uint64_t before = report_.count();
        try {
            const auto file = files_.open(database_path);
            if (read_header(*file)) header_is_whole() ? check_marks(*file) : report_layout();
        } catch (const error::Exception&) {
            // The text of the first failure says enough.
        }
        if (report_.count() == before) report_.add("H4", 0, 0, text);
    }

    void report_layout() {
        try {
            header_.verify();
        } catch (const error_generic& failure) {
            report_.add("H1", 0, wrong_header_field(), failure.text());
        }
    }

    /// The map as it lies in a file that may end within it.
    void check_marks(platform::File& file) {
        const uint64_t block_size = header_.block_size();
        const uint64_t blocks_there = file.size() / block_size;
        std::vector<uint8_t> marks(block_size);
        for (uint32_t map_block = header_.map_start(); map_block < header_.first_data_block();
             ++map_block) {
            const size_t got = file.read_at(marks.data(), marks.size(), map_block * block_size);
            for (uint32_t at = 0; at < got; ++at) {
                const uint64_t block = (map_block - header_.map_start()) * block_size + at;
                if (!is_mark(marks[at]))
                    report_.add("M1", map_block, at,
                                fmt::format("block {} has mark {}", block, marks[at]));
                else if (marks[at] != 0 && block >= blocks_there)
                    report_.add("O4", map_block, at,
                                fmt::format("block {} has mark {} and is not in the file", block,
                                            marks[at]));
            }
            if (got < block_size) {
                report_.add("M1", map_block, static_cast<uint32_t>(got),
                            fmt::format("the file ends within the map, which goes to block {}",
                                        header_.first_data_block()));
                return;
            }
            if (report_.full()) return;
        }
    }

    /// Faults of the files come before those of the database in them.
    FileVerification finish() {
        Verification& found = result_.verification;
        std::vector<Fault>& faults = report_.faults();
        for (Fault& fault : found.faults)
            if (faults.size() < options_.most_faults) faults.push_back(std::move(fault));
        found.faults = std::move(faults);
        found.fault_count += report_.count();
        return std::move(result_);
    }

    platform::FileSystem& files_;
    const VerifyOptions& options_;
    FaultReport report_;
    Header header_;
    detail::JournalScan scan_;
    FileVerification result_;
};

}  // namespace

FileVerification verify_files(platform::FileSystem& files, const std::string& database_path,
                              const std::string& journal_path, const VerifyOptions& options) {
    return FileVerifier(files, options).run(database_path, journal_path);
}

}  // namespace mdb
