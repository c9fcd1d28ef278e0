#include <filesystem>
#include <optional>
#include <sqlite3.h>
#include <stdexcept>

#include "common/folder.h"
#include "platform/clock.h"
#include "series/measure.h"

namespace bench {

namespace {

constexpr double kMicro = 1e6, kMega = 1e6;
constexpr uint32_t kMostUncommitted = 50'000;
constexpr uint64_t kCommitEvery_us = 1'000'000;

class Rows {
  public:
    explicit Rows(const std::string& folder) {
        check(sqlite3_open((folder + "/rows").c_str(), &db_));
        // Those of the store.
        run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA cache_size = -65536;"
            "PRAGMA wal_autocheckpoint = 4000; PRAGMA journal_size_limit = 67108864");
        run("CREATE TABLE IF NOT EXISTS records(series INTEGER, start INTEGER, end INTEGER,"
            " min REAL, avg REAL, max REAL, ngood INTEGER, nbad INTEGER,"
            " PRIMARY KEY(series, start)) WITHOUT ROWID");
        put_ = prepare("INSERT INTO records VALUES(?1, ?2, ?3, ?4, ?4, ?4, 1, 0)");
        latest_ = prepare("SELECT * FROM records WHERE series = ?1 ORDER BY start DESC LIMIT 1");
        since_ = prepare("SELECT * FROM records WHERE series = ?1 AND start >= ?2 ORDER BY start");
    }
    ~Rows() {
        for (sqlite3_stmt* one : {put_, latest_, since_}) sqlite3_finalize(one);
        sqlite3_close(db_);
    }
    Rows(const Rows&) = delete;
    Rows& operator=(const Rows&) = delete;

    void put(uint32_t series, uint32_t minute) {
        if (uncommitted_ == 0) {
            run("BEGIN IMMEDIATE");
            since_us_ = clock_.monotonic_us();
        }
        const Point made = point(series, minute);
        sqlite3_bind_int64(put_, 1, series);
        sqlite3_bind_int64(put_, 2, made.start);
        sqlite3_bind_int64(put_, 3, made.end);
        sqlite3_bind_double(put_, 4, made.value);
        if (sqlite3_step(put_) != SQLITE_DONE) fail();
        sqlite3_reset(put_);
        if (++uncommitted_ >= kMostUncommitted ||
            clock_.monotonic_us() - since_us_ >= kCommitEvery_us)
            commit();
    }
    void commit() {
        if (uncommitted_ > 0) run("COMMIT");
        uncommitted_ = 0;
    }
    size_t latest(uint32_t series) { return count(latest_, series); }
    size_t since(uint32_t series, int64_t start) {
        sqlite3_bind_int64(since_, 2, start);
        return count(since_, series);
    }

  private:
    void fail() { throw std::runtime_error(sqlite3_errmsg(db_)); }
    void check(int result) {
        if (result != SQLITE_OK) fail();
    }
    void run(const char* sql) { check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr)); }
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* made = nullptr;
        check(sqlite3_prepare_v2(db_, sql, -1, &made, nullptr));
        return made;
    }
    size_t count(sqlite3_stmt* statement, uint32_t series) {
        sqlite3_bind_int64(statement, 1, series);
        size_t rows = 0;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            // Each value is taken out, as an answer would.
            for (int column = 0; column < 8; ++column)
                static_cast<void>(sqlite3_column_double(statement, column));
            ++rows;
        }
        sqlite3_reset(statement);
        return rows;
    }

    platform::SystemClock clock_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt *put_ = nullptr, *latest_ = nullptr, *since_ = nullptr;
    uint32_t uncommitted_ = 0;
    uint64_t since_us_ = 0;
};

double append(Rows& rows, uint32_t series, uint32_t records_each) {
    const double seconds = seconds_of([&] {
        for (uint32_t minute = 0; minute < records_each; ++minute)
            for (uint32_t one = 0; one < series; ++one) rows.put(one, minute);
        rows.commit();
    });
    return static_cast<double>(series) * records_each / seconds;
}

}  // namespace

Figures measure_rows(const std::string& base, const SeriesSizes& sizes) {
    Figures figures;
    {
        const Folder folder(base);
        std::optional<Rows> rows(folder.path());
        figures["append"] = append(*rows, sizes.series, sizes.records_each);
        figures["latest"] = seconds_of([&] {
                                for (uint32_t i = 0; i < sizes.reads; ++i)
                                    if (rows->latest(i % sizes.series) != 1)
                                        throw std::runtime_error("no newest row");
                            }) /
                            sizes.reads * kMicro;
        const int64_t start = point(0, sizes.records_each - 60).start;
        figures["hour"] = seconds_of([&] {
                              for (uint32_t i = 0; i < sizes.reads; ++i)
                                  if (rows->since(i % sizes.series, start) != 60)
                                      throw std::runtime_error("not the rows of an hour");
                          }) /
                          sizes.reads * kMicro;
        rows.reset();
        figures["size"] = static_cast<double>(std::filesystem::file_size(folder.path() + "/rows")) /
                          kMega / (static_cast<double>(sizes.series) * sizes.records_each) * 1e6;
        rows.emplace(folder.path());
        figures["awaited"] =
            sizes.awaited / seconds_of([&] {
                for (uint32_t i = 0; i < sizes.awaited; ++i) {
                    rows->put(i % sizes.series, sizes.records_each + i / sizes.series);
                    rows->commit();
                }
            });
    }
    const Folder folder(base);
    Rows rows(folder.path());
    figures["wide_append"] = append(rows, sizes.wide_series, sizes.wide_records_each);
    figures["wide_memory"] = resident_bytes() / kMega;
    return figures;
}

}  // namespace bench
