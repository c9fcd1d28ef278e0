// The storage of series in one SQLite file with a write-ahead log.
//
// A commit is durable before it returns. A process that is killed loses what it hadn't committed,
// and leaves a file that is whole.
#pragma once

#include <memory>
#include <string>

#include "tsdb/storage.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tsdb {

class SqliteStorage : public Storage {
  public:
    /// Opens the file at `path`, or makes one. The indexes of a new file's series begin behind
    /// `first_index`: should an older file have been lost, series that objects still name aren't
    /// mistaken for new ones. Throws EStorage.
    SqliteStorage(const std::string& path, uint32_t first_index);
    ~SqliteStorage() override;
    SqliteStorage(const SqliteStorage&) = delete;
    SqliteStorage& operator=(const SqliteStorage&) = delete;

    void commit() override;
    [[nodiscard]] bool in_transaction() const override;
    void abort() noexcept override;
    void begin_step() override;
    void end_step() override;
    void undo_step() noexcept override;
    uint32_t add_series(const time_series_layout_t& layout) override;
    [[nodiscard]] std::optional<SeriesRow> find_series(uint32_t index) override;
    void set_counts(uint32_t index, const std::vector<uint32_t>& counts) override;
    void remove_series(uint32_t index) override;
    bool purge(uint32_t most) override;
    [[nodiscard]] std::optional<std::string> find(uint32_t index, uint32_t level,
                                                  RecordKey key) override;
    void put(uint32_t index, uint32_t level, RecordKey key, std::string_view bytes) override;
    void erase_oldest(uint32_t index, uint32_t level) override;
    void erase(uint32_t index, uint32_t level, RecordKey key) override;
    void walk(uint32_t index, uint32_t level, RecordKey first, RecordKey last, bool backward,
              const Visit& visit) override;
    [[nodiscard]] std::optional<int64_t> oldest_time() override;

  private:
    struct Closer {
        void operator()(sqlite3* database) const noexcept;
        void operator()(sqlite3_stmt* statement) const noexcept;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Closer>;
    class Run;

    [[noreturn]] void fail(const char* doing);
    void execute(const char* sql, const char* doing);
    [[nodiscard]] Statement prepare(const char* sql);
    void make_tables(uint32_t first_index);
    void prepare_all();
    void begin_if_needed();

    std::string path_;
    std::unique_ptr<sqlite3, Closer> database_;
    Statement begin_, commit_, begin_step_, end_step_, add_series_, find_series_, set_counts_,
        remove_series_, note_removed_, first_removed_, purge_records_, forget_removed_, find_, put_,
        erase_oldest_, erase_, walk_forward_, walk_backward_, oldest_time_;
};

}  // namespace tsdb
