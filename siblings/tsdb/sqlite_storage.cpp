#include "tsdb/sqlite_storage.h"

#include <fmt/format.h>
#include <limits>
#include <sqlite3.h>

#include "tsdb/failures.h"
#include "util/byte_order.h"

namespace tsdb {

namespace {

constexpr int kFormat = 1;
/// The store's share of memory, however many series there are.
constexpr const char* kSettings =
    "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA cache_size = -65536;"
    "PRAGMA wal_autocheckpoint = 4000; PRAGMA journal_size_limit = 67108864;"
    "PRAGMA temp_store = MEMORY;";
constexpr const char* kTables =
    "CREATE TABLE series(id INTEGER PRIMARY KEY AUTOINCREMENT, layout BLOB NOT NULL,"
    " counts BLOB NOT NULL);"
    "CREATE TABLE removed(id INTEGER PRIMARY KEY);"
    "CREATE TABLE records(series INTEGER NOT NULL, level INTEGER NOT NULL, time INTEGER NOT NULL,"
    " number INTEGER NOT NULL, bytes BLOB NOT NULL, PRIMARY KEY(series, level, time, number))"
    " WITHOUT ROWID;";
constexpr uint32_t kNoIndex = 0xFFFFFFFF;
constexpr size_t kWord = 4;

std::string words(const std::vector<uint32_t>& numbers) {
    std::string bytes(numbers.size() * kWord, '\0');
    for (size_t i = 0; i < numbers.size(); ++i)
        util::store_le32(bytes.data() + i * kWord, numbers[i]);
    return bytes;
}

std::vector<uint32_t> numbers(std::string_view bytes) {
    std::vector<uint32_t> out(bytes.size() / kWord);
    for (size_t i = 0; i < out.size(); ++i) out[i] = util::load_le32(bytes.data() + i * kWord);
    return out;
}

/// Type, then records and span of each level.
std::string layout_bytes(const time_series_layout_t& layout) {
    std::vector<uint32_t> all{layout.type};
    for (const level_t& level : layout.levels) {
        all.push_back(level.records);
        all.push_back(level.span_s);
    }
    return words(all);
}

time_series_layout_t layout_of(std::string_view bytes) {
    const std::vector<uint32_t> all = numbers(bytes);
    if (all.size() < 3 || all.size() % 2 == 0 || bytes.size() % kWord != 0)
        throw EDamaged("A series without a layout");
    time_series_layout_t layout{all[0], {}};
    for (size_t i = 1; i < all.size(); i += 2) {
        if (all[i] == 0 || all[i + 1] == 0) throw EDamaged("A series with an empty level");
        layout.levels.push_back({all[i], all[i + 1]});
    }
    return layout;
}

}  // namespace

void SqliteStorage::Closer::operator()(sqlite3* database) const noexcept {
    sqlite3_close(database);
}
void SqliteStorage::Closer::operator()(sqlite3_stmt* statement) const noexcept {
    sqlite3_finalize(statement);
}

/// One run of a prepared statement, which is ready for the next one when this goes.
class SqliteStorage::Run {
  public:
    Run(SqliteStorage& storage, const Statement& statement)
        : storage_(storage), statement_(statement.get()) {}
    ~Run() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    Run& bind(int64_t number) {
        check(sqlite3_bind_int64(statement_, ++bound_, number));
        return *this;
    }
    /// The bytes must outlive the run.
    Run& bind(std::string_view bytes) {
        check(sqlite3_bind_blob64(statement_, ++bound_, bytes.data(), bytes.size(), SQLITE_STATIC));
        return *this;
    }
    /// Whether there is a row.
    bool step() {
        const int result = sqlite3_step(statement_);
        if (result != SQLITE_ROW && result != SQLITE_DONE) storage_.fail("work on");
        return result == SQLITE_ROW;
    }
    [[nodiscard]] int64_t number(int column) const {
        return sqlite3_column_int64(statement_, column);
    }
    [[nodiscard]] bool is_null(int column) const {
        return sqlite3_column_type(statement_, column) == SQLITE_NULL;
    }
    /// Valid until the next step.
    [[nodiscard]] std::string_view bytes(int column) const {
        const void* data = sqlite3_column_blob(statement_, column);
        const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_, column));
        return data == nullptr ? std::string_view()
                               : std::string_view(static_cast<const char*>(data), size);
    }

  private:
    void check(int result) {
        if (result != SQLITE_OK) storage_.fail("work on");
    }

    SqliteStorage& storage_;
    sqlite3_stmt* statement_;
    int bound_ = 0;
};

SqliteStorage::SqliteStorage(const std::string& path, uint32_t first_index) : path_(path) {
    sqlite3* opened = nullptr;
    const int result =
        sqlite3_open_v2(path.c_str(), &opened,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(opened);
    if (result != SQLITE_OK) fail("open");
    sqlite3_extended_result_codes(opened, 1);
    sqlite3_busy_timeout(opened, 2000);
    execute(kSettings, "open");
    make_tables(first_index);
    prepare_all();
}

SqliteStorage::~SqliteStorage() = default;

void SqliteStorage::fail(const char* doing) {
    const std::string reason =
        database_ ? sqlite3_errmsg(database_.get()) : std::string("out of memory");
    throw EStorage(fmt::format("Can't {} the time series in {}: {}", doing, path_, reason));
}

void SqliteStorage::execute(const char* sql, const char* doing) {
    if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(doing);
}

SqliteStorage::Statement SqliteStorage::prepare(const char* sql) {
    sqlite3_stmt* made = nullptr;
    if (sqlite3_prepare_v3(database_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr) !=
        SQLITE_OK)
        fail("open");
    return Statement(made);
}

void SqliteStorage::make_tables(uint32_t first_index) {
    int64_t format = 0;
    {
        const Statement statement = prepare("PRAGMA user_version");
        Run run(*this, statement);
        if (run.step()) format = run.number(0);
    }
    if (format == kFormat) return;
    if (format != 0)
        throw EStorage(fmt::format("The time series in {} have format {}, this program knows {}",
                                   path_, format, kFormat));
    execute("BEGIN IMMEDIATE", "open");
    execute(kTables, "make");
    execute(
        fmt::format("INSERT INTO sqlite_sequence VALUES('series', {}); PRAGMA user_version = {};",
                    first_index, kFormat)
            .c_str(),
        "make");
    execute("COMMIT", "make");
}

void SqliteStorage::prepare_all() {
    begin_ = prepare("BEGIN IMMEDIATE");
    commit_ = prepare("COMMIT");
    begin_step_ = prepare("SAVEPOINT step");
    end_step_ = prepare("RELEASE step");
    add_series_ = prepare("INSERT INTO series(layout, counts) VALUES(?, ?)");
    find_series_ = prepare("SELECT layout, counts FROM series WHERE id = ?");
    set_counts_ = prepare("UPDATE series SET counts = ?2 WHERE id = ?1");
    remove_series_ = prepare("DELETE FROM series WHERE id = ?");
    note_removed_ = prepare("INSERT OR IGNORE INTO removed VALUES(?)");
    first_removed_ = prepare("SELECT id FROM removed LIMIT 1");
    purge_records_ = prepare(
        "DELETE FROM records WHERE series = ?1 AND (series, level, time, number) IN"
        " (SELECT series, level, time, number FROM records WHERE series = ?1 LIMIT ?2)");
    forget_removed_ = prepare("DELETE FROM removed WHERE id = ?");
    find_ = prepare(
        "SELECT bytes FROM records WHERE series = ? AND level = ? AND time = ? AND number = ?");
    put_ = prepare("INSERT OR REPLACE INTO records VALUES(?, ?, ?, ?, ?)");
    erase_oldest_ = prepare(
        "DELETE FROM records WHERE series = ?1 AND level = ?2 AND (time, number) ="
        " (SELECT time, number FROM records WHERE series = ?1 AND level = ?2"
        " ORDER BY time, number LIMIT 1)");
    erase_ =
        prepare("DELETE FROM records WHERE series = ? AND level = ? AND time = ? AND number = ?");
    walk_forward_ = prepare(
        "SELECT time, number, bytes FROM records WHERE series = ? AND level = ?"
        " AND (time, number) >= (?, ?) AND (time, number) <= (?, ?) ORDER BY time, number");
    walk_backward_ = prepare(
        "SELECT time, number, bytes FROM records WHERE series = ? AND level = ?"
        " AND (time, number) >= (?, ?) AND (time, number) <= (?, ?) ORDER BY time DESC, number "
        "DESC");
    // The coarsest level reaches back furthest; it is the last one, and a seek for each series.
    oldest_time_ = prepare(
        "SELECT min((SELECT min(time) FROM records WHERE series = id AND level ="
        " (length(layout) - 4) / 8 - 1)) FROM series");
}

void SqliteStorage::begin_if_needed() {
    if (!in_transaction()) Run(*this, begin_).step();
}

void SqliteStorage::commit() {
    if (in_transaction()) Run(*this, commit_).step();
}

bool SqliteStorage::in_transaction() const {
    return sqlite3_get_autocommit(database_.get()) == 0;
}

void SqliteStorage::abort() noexcept {
    if (database_ && in_transaction())
        sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void SqliteStorage::begin_step() {
    begin_if_needed();
    Run(*this, begin_step_).step();
}

void SqliteStorage::end_step() {
    Run(*this, end_step_).step();
}

void SqliteStorage::undo_step() noexcept {
    if (in_transaction())
        sqlite3_exec(database_.get(), "ROLLBACK TO step; RELEASE step", nullptr, nullptr, nullptr);
}

uint32_t SqliteStorage::add_series(const time_series_layout_t& layout) {
    begin_if_needed();
    const std::string bytes = layout_bytes(layout);
    const std::string counts = words(std::vector<uint32_t>(layout.levels.size(), 0));
    Run(*this, add_series_).bind(bytes).bind(counts).step();
    const int64_t index = sqlite3_last_insert_rowid(database_.get());
    if (index >= kNoIndex) {
        throw EStorage(fmt::format("The time series in {} have used up all indexes", path_));
    }
    return static_cast<uint32_t>(index);
}

std::optional<SeriesRow> SqliteStorage::find_series(uint32_t index) {
    Run run(*this, find_series_);
    if (!run.bind(index).step()) return std::nullopt;
    SeriesRow row{layout_of(run.bytes(0)), numbers(run.bytes(1))};
    if (row.counts.size() != row.layout.levels.size())
        throw EDamaged(fmt::format("Time series {} has {} levels and {} counts", index,
                                   row.layout.levels.size(), row.counts.size()));
    return row;
}

void SqliteStorage::set_counts(uint32_t index, const std::vector<uint32_t>& counts) {
    begin_if_needed();
    const std::string bytes = words(counts);
    Run(*this, set_counts_).bind(index).bind(bytes).step();
}

void SqliteStorage::remove_series(uint32_t index) {
    begin_if_needed();
    Run(*this, remove_series_).bind(index).step();
    if (sqlite3_changes(database_.get()) > 0) Run(*this, note_removed_).bind(index).step();
}

bool SqliteStorage::purge(uint32_t most) {
    int64_t index = 0;
    {
        Run run(*this, first_removed_);
        if (!run.step()) return false;
        index = run.number(0);
    }
    begin_if_needed();
    Run(*this, purge_records_).bind(index).bind(most).step();
    if (sqlite3_changes(database_.get()) == 0) Run(*this, forget_removed_).bind(index).step();
    return true;
}

std::optional<std::string> SqliteStorage::find(uint32_t index, uint32_t level, RecordKey key) {
    Run run(*this, find_);
    if (!run.bind(index).bind(level).bind(key.time).bind(key.number).step()) return std::nullopt;
    return std::string(run.bytes(0));
}

void SqliteStorage::put(uint32_t index, uint32_t level, RecordKey key, std::string_view bytes) {
    begin_if_needed();
    Run run(*this, put_);
    run.bind(index).bind(level).bind(key.time).bind(key.number).bind(bytes).step();
}

void SqliteStorage::erase_oldest(uint32_t index, uint32_t level) {
    begin_if_needed();
    Run(*this, erase_oldest_).bind(index).bind(level).step();
}

void SqliteStorage::erase(uint32_t index, uint32_t level, RecordKey key) {
    begin_if_needed();
    Run(*this, erase_).bind(index).bind(level).bind(key.time).bind(key.number).step();
}

void SqliteStorage::walk(uint32_t index, uint32_t level, RecordKey first, RecordKey last,
                         bool backward, const Visit& visit) {
    Run run(*this, backward ? walk_backward_ : walk_forward_);
    run.bind(index).bind(level).bind(first.time).bind(first.number);
    run.bind(last.time).bind(last.number);
    while (run.step()) {
        const RecordKey key{run.number(0), static_cast<uint32_t>(run.number(1))};
        if (!visit(key, run.bytes(2))) return;
    }
}

std::optional<int64_t> SqliteStorage::oldest_time() {
    Run run(*this, oldest_time_);
    if (!run.step() || run.is_null(0)) return std::nullopt;
    return run.number(0);
}

}  // namespace tsdb
