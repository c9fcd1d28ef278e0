#include <fmt/format.h>
#include <sqlite3.h>
#include <stdexcept>

#include "store/store.h"

namespace bench {

namespace {

int64_t as_number(NodeId id) {
    return static_cast<int64_t>(uint64_t{id.first} << 32 | id.second);
}

/// WAL mode, the file held by this process alone as ours is; synchronous=FULL for durable commits,
/// NORMAL (a commit in the log, not synced) otherwise. One table with the key columns and the
/// packed object, and five indexes beside the row number.
class SqliteStore final : public Store {
  public:
    explicit SqliteStore(const std::string& folder) : folder_(folder) {
        check(sqlite3_open((folder + "/objects.sqlite").c_str(), &db_));
        run("PRAGMA locking_mode=EXCLUSIVE");
        run("PRAGMA journal_mode=WAL");
        run("PRAGMA cache_size=-65536");
        run("PRAGMA mmap_size=268435456");
        run("CREATE TABLE IF NOT EXISTS objects(id INTEGER PRIMARY KEY, parent INTEGER, "
            "active INTEGER, inherits INTEGER, master INTEGER, notify INTEGER, data BLOB)");
        for (const char* column : {"parent", "active", "inherits", "master", "notify"})
            run(fmt::format("CREATE INDEX IF NOT EXISTS by_{0} ON objects({0})", column));
        insert_ = prepare("INSERT INTO objects VALUES(?1,?2,?3,?4,?5,?6,?7)");
        update_ = prepare("UPDATE objects SET data=?2 WHERE id=?1");
        read_ = prepare("SELECT data FROM objects WHERE id=?1");
        list_ = prepare("SELECT data FROM objects WHERE parent=?1");
        begin_ = prepare("BEGIN IMMEDIATE");
        commit_ = prepare("COMMIT");
        set_durable(false);
    }
    ~SqliteStore() override {
        for (sqlite3_stmt* statement : {insert_, update_, read_, list_, begin_, commit_})
            sqlite3_finalize(statement);
        sqlite3_close(db_);
    }

    void set_durable(bool durable) override {
        run(durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
    }

    void create(const Object& object) override {
        const NodeId keys[] = {object.id.value,       object.parent.value, object.parent.value,
                               object.inherits.value, object.master.value, object.notify.value};
        int column = 0;
        for (const NodeId key : keys) check(sqlite3_bind_int64(insert_, ++column, as_number(key)));
        bind_blob(insert_, 7, packed_.pack(object));
        finish(insert_);
    }

    void update(NodeId id, uint64_t counter) override {
        finish(begin_);
        change(id, counter);
        finish(commit_);
    }

    void read(NodeId id, Object& object) override {
        check(sqlite3_bind_int64(read_, 1, as_number(id)));
        if (sqlite3_step(read_) != SQLITE_ROW) fail();
        object.decode(PackedObject::records(blob(read_)));
        sqlite3_reset(read_);
    }

    void list(NodeId parent, std::vector<Child>& children) override {
        check(sqlite3_bind_int64(list_, 1, as_number(parent)));
        size_t count = 0;
        while (sqlite3_step(list_) == SQLITE_ROW) {
            if (children.size() == count) children.emplace_back();
            decode_child(PackedObject::records(blob(list_)), children[count++]);
        }
        children.resize(count);
        sqlite3_reset(list_);
    }

    void fill_log(uint32_t count) override {
        settle();
        run("PRAGMA wal_autocheckpoint=0");
        Shuffle ordinals(11, count);
        uint64_t counter = kFillCounter;
        while (bytes_of_files(folder_, "-wal") < static_cast<double>(kLogBytes))
            for (int i = 0; i < 100; ++i) update(id_of(ordinals.next()), ++counter);
    }

    double settle() override {
        run("PRAGMA wal_checkpoint(TRUNCATE)");
        return bytes_of_files(folder_, ".sqlite");
    }

  private:
    [[noreturn]] void fail() { throw std::runtime_error(sqlite3_errmsg(db_)); }
    void check(int result) {
        if (result != SQLITE_OK) fail();
    }
    void run(const std::string& sql) {
        check(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr));
    }
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* statement = nullptr;
        check(sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
        return statement;
    }
    void bind_blob(sqlite3_stmt* statement, int column, std::span<const std::byte> bytes) {
        check(sqlite3_bind_blob(statement, column, bytes.data(), static_cast<int>(bytes.size()),
                                nullptr));
    }
    void finish(sqlite3_stmt* statement) {
        if (sqlite3_step(statement) != SQLITE_DONE) fail();
        check(sqlite3_reset(statement));
    }
    static std::span<const std::byte> blob(sqlite3_stmt* statement) {
        return {static_cast<const std::byte*>(sqlite3_column_blob(statement, 0)),
                static_cast<size_t>(sqlite3_column_bytes(statement, 0))};
    }

    void change(NodeId id, uint64_t counter) {
        check(sqlite3_bind_int64(read_, 1, as_number(id)));
        if (sqlite3_step(read_) != SQLITE_ROW) fail();
        const auto changed = packed_.with_counter(blob(read_), counter);
        sqlite3_reset(read_);
        check(sqlite3_bind_int64(update_, 1, as_number(id)));
        bind_blob(update_, 2, changed);
        finish(update_);
    }

    std::string folder_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt *insert_ = nullptr, *update_ = nullptr, *read_ = nullptr, *list_ = nullptr,
                 *begin_ = nullptr, *commit_ = nullptr;
    PackedObject packed_;
};

}  // namespace

std::unique_ptr<Store> open_sqlite(const std::string& folder) {
    return std::make_unique<SqliteStore>(folder);
}

}  // namespace bench
