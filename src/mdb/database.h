// The whole store: one object that owns file, allocation map, cache, journal, transaction stack and
// serialization cache, and opens them in the one order in which that is right. Two databases can
// live in one process. Objects (object.h) and indexes (index.h) work on a Database and keep no file
// state of their own.
//
// There is no orderly close: a Database that goes away leaves the files as they are, as a killed
// process would, and the next one replays.
#pragma once

#include <memory>
#include <string>

#include "mdb/allocator.h"
#include "mdb/backing_store.h"
#include "mdb/block_cache.h"
#include "mdb/dobj.h"
#include "mdb/errors.h"
#include "mdb/header_layout.h"
#include "mdb/journal.h"
#include "mdb/serializer.h"

namespace mdb {

struct Settings {
    std::string database_path;
    /// Empty: the path that the database's header names.
    std::string journal_path;
    /// Blocks that the cache holds, at least 1.
    uint32_t buffer_blocks = 16384;
};

class Database {
  public:
    /// Opens, replays and loads the map. Throws the exceptions of errors.h; error_open when another
    /// process has the database open. `files` and `clock` must outlive the database.
    Database(const Settings& settings, platform::FileSystem& files, const platform::Clock& clock);
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    [[nodiscard]] uint32_t block_size() const noexcept { return store_.block_size(); }
    [[nodiscard]] BackingStore& store() noexcept { return store_; }
    [[nodiscard]] Journal& journal() noexcept { return journal_; }
    [[nodiscard]] BlockPool& pool() noexcept { return *pool_; }
    [[nodiscard]] BlockCache& cache() noexcept { return *cache_; }
    [[nodiscard]] Allocator& allocator() noexcept { return *allocator_; }
    [[nodiscard]] Serializer& serializer() noexcept { return *serializer_; }

    /// The header as last read or written.
    [[nodiscard]] const Header& header() const noexcept { return header_; }
    /// Writes the header straight to the file and syncs it. No transaction may be open. Everything
    /// committed is brought to the file and a new half begun first, so that no replay can put an
    /// older header back; in that half it is committed too, for a replay to mend a torn write.
    void write_header(const Header& header);
    /// Adds the header to the open transaction as an update of its 1024 bytes. header() stays as it
    /// is until take_header() is called, after the commit.
    void journal_header(const Header& header);
    /// Has header() say what `header` says, which was committed.
    void take_header(const Header& header) { header_ = header; }

  private:
    void load_header();
    void read_header(const std::string& journal_path);
    void check_before_replay();
    void check_not_shortened();
    void check_journal_region();
    void init_storage();

    BackingStore store_;
    Journal journal_;
    Header header_;
    std::unique_ptr<BlockPool> pool_;
    std::unique_ptr<BlockCache> cache_;
    std::unique_ptr<Allocator> allocator_;
    std::unique_ptr<Serializer> serializer_;
};

}  // namespace mdb
