#include "objects/sqlite_tree.h"

#include <sqlite3.h>
#include <stdexcept>

namespace bench {

namespace {

constexpr const char* kDown =
    "WITH RECURSIVE below(id, active) AS (VALUES(?1, 0) UNION ALL"
    " SELECT objects.id, objects.active FROM below JOIN objects ON objects.parent = below.id)"
    " SELECT objects.id, objects.name FROM below JOIN objects ON objects.id = below.id"
    " WHERE below.active";
constexpr const char* kUp =
    "WITH RECURSIVE way(id, at) AS (SELECT id, parent FROM objects WHERE active = 1 UNION ALL"
    " SELECT way.id, objects.parent FROM way JOIN objects ON objects.id = way.at"
    " WHERE way.at <> ?1)"
    " SELECT objects.id, objects.name FROM way JOIN objects ON objects.id = way.id"
    " WHERE way.at = ?1";

int64_t as_number(const NodeId& id) {
    return static_cast<int64_t>(uint64_t{id.first} << 32 | id.second);
}

}  // namespace

struct SqliteTree::Statements {
    sqlite3* db = nullptr;
    sqlite3_stmt *insert = nullptr, *down = nullptr, *up = nullptr;

    void check(int result) const {
        if (result != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(db));
    }
    void run(const char* sql) const { check(sqlite3_exec(db, sql, nullptr, nullptr, nullptr)); }
    [[nodiscard]] sqlite3_stmt* prepare(const char* sql) const {
        sqlite3_stmt* statement = nullptr;
        check(sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
        return statement;
    }
    [[nodiscard]] std::vector<NodeId> ask(sqlite3_stmt* question, const NodeId& origin) const {
        check(sqlite3_bind_int64(question, 1, as_number(origin)));
        std::vector<NodeId> ids;
        std::string name;
        int state = SQLITE_ROW;
        while ((state = sqlite3_step(question)) == SQLITE_ROW) {
            const auto id = static_cast<uint64_t>(sqlite3_column_int64(question, 0));
            ids.push_back({static_cast<uint32_t>(id >> 32), static_cast<uint32_t>(id)});
            name = reinterpret_cast<const char*>(sqlite3_column_text(question, 1));
        }
        if (state != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db));
        check(sqlite3_reset(question));
        return ids;
    }
};

SqliteTree::SqliteTree(const std::string& folder) : sql_(std::make_unique<Statements>()) {
    sql_->check(sqlite3_open((folder + "/objects.sqlite").c_str(), &sql_->db));
    sql_->run("PRAGMA locking_mode=EXCLUSIVE");
    sql_->run("PRAGMA journal_mode=WAL");
    sql_->run("PRAGMA cache_size=-65536");
    sql_->run("PRAGMA mmap_size=268435456");
    sql_->run(
        "CREATE TABLE objects(id INTEGER PRIMARY KEY, parent INTEGER, name TEXT, active INTEGER)");
    sql_->run("BEGIN");
    sql_->insert = sql_->prepare("INSERT INTO objects VALUES(?1,?2,?3,?4)");
}

SqliteTree::~SqliteTree() {
    for (sqlite3_stmt* statement : {sql_->insert, sql_->down, sql_->up})
        sqlite3_finalize(statement);
    sqlite3_close(sql_->db);
}

void SqliteTree::add(const NodeId& id, const NodeId& parent, const std::string& name, bool active) {
    sqlite3_stmt* insert = sql_->insert;
    sql_->check(sqlite3_bind_int64(insert, 1, as_number(id)));
    sql_->check(sqlite3_bind_int64(insert, 2, as_number(parent)));
    sql_->check(sqlite3_bind_text(insert, 3, name.c_str(), static_cast<int>(name.size()), nullptr));
    sql_->check(sqlite3_bind_int(insert, 4, active ? 1 : 0));
    if (sqlite3_step(insert) != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(sql_->db));
    sql_->check(sqlite3_reset(insert));
}

void SqliteTree::done() {
    sql_->run("COMMIT");
    // With the mark in the index of parents the way down needs no row that isn't in the answer.
    sql_->run("CREATE INDEX by_parent ON objects(parent, active)");
    sql_->run("CREATE INDEX by_active ON objects(parent) WHERE active = 1");
    sql_->run("ANALYZE");
    sql_->down = sql_->prepare(kDown);
    sql_->up = sql_->prepare(kUp);
}

std::vector<NodeId> SqliteTree::active_below(const NodeId& origin) {
    return sql_->ask(sql_->down, origin);
}

std::vector<NodeId> SqliteTree::active_up_to(const NodeId& origin) {
    return sql_->ask(sql_->up, origin);
}

}  // namespace bench
