#include "query/sqlite_objects.h"

#include <cstring>
#include <fmt/format.h>
#include <map>
#include <sqlite3.h>
#include <stdexcept>

namespace bench {

namespace {

// What is asked of each object; `o` is its row.
#define WANTED "o.id, o.parent, o.class, o.name, o.label, o.url, o.active, o.ord, o.port"
// The way down carries ids alone: to carry whole rows costs more than to look them up at the end.
#define BELOW                                                                              \
    "WITH RECURSIVE below(id) AS (VALUES(?1) UNION ALL SELECT objects.id FROM below JOIN " \
    "objects ON objects.parent = below.id) "
#define OF_BELOW " FROM below JOIN objects o ON o.id = below.id"

const std::map<sql_t, const char*> kSql = {
    {sql_t::by_id, "SELECT " WANTED " FROM objects o WHERE o.id = ?1"},
    {sql_t::by_path,
     "SELECT " WANTED " FROM objects r JOIN objects s ON s.parent = r.id AND s.name = ?3"
     " JOIN objects n ON n.parent = s.id AND n.name = ?4"
     " JOIN objects o ON o.parent = n.id AND o.name = ?5"
     " WHERE r.parent = ?1 AND r.name = ?2"},
    {sql_t::below, BELOW "SELECT " WANTED OF_BELOW},
    {sql_t::active_below, BELOW "SELECT " WANTED OF_BELOW " WHERE o.active = 1"},
    {sql_t::order_below, BELOW "SELECT " WANTED OF_BELOW " WHERE o.ord >= ?2 AND o.class = ?3"},
    {sql_t::master_below,
     "WITH RECURSIVE way(id, at) AS (SELECT id, parent FROM objects WHERE master = ?2 UNION ALL"
     " SELECT way.id, objects.parent FROM way JOIN objects ON objects.id = way.at"
     " WHERE way.at <> ?1)"
     " SELECT " WANTED " FROM way JOIN objects o ON o.id = way.id WHERE way.at = ?1"},
};

#undef WANTED
#undef BELOW
#undef OF_BELOW

enum column_t { id, parent, class_number, name, label, url, active, ord, port };

/// Bytes over bytes of an earlier answer.
class ByteWriter {
  public:
    explicit ByteWriter(std::vector<uint8_t>& bytes) : bytes_(bytes) { bytes_.clear(); }
    template <class Number>
    void number(Number value) {
        append(&value, sizeof value);
    }
    void text(const void* from, size_t size) {
        number(static_cast<uint64_t>(size));
        append(from, size);
    }

  private:
    void append(const void* from, size_t size) {
        const size_t at = bytes_.size();
        bytes_.resize(at + size);
        std::memcpy(bytes_.data() + at, from, size);
    }
    std::vector<uint8_t>& bytes_;
};

void write_row(sqlite3_stmt* row, ByteWriter& out) {
    out.number(sqlite3_column_int64(row, id));
    out.number(sqlite3_column_int64(row, parent));
    out.number(sqlite3_column_int(row, class_number));
    for (const column_t column : {name, label, url}) {
        const unsigned char* text = sqlite3_column_text(row, column);
        out.text(text, static_cast<size_t>(sqlite3_column_bytes(row, column)));
    }
    for (const column_t column : {active, ord, port}) out.number(sqlite3_column_int(row, column));
}

std::string text_of(sqlite3_stmt* row, column_t column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
    return text == nullptr ? "" : text;
}

std::string line_of(sqlite3_stmt* row) {
    const auto number = static_cast<uint64_t>(sqlite3_column_int64(row, id));
    return object_line({static_cast<uint32_t>(number >> 32), static_cast<uint32_t>(number)},
                       text_of(row, name), text_of(row, label), text_of(row, url),
                       sqlite3_column_int(row, active) != 0,
                       static_cast<uint32_t>(sqlite3_column_int(row, ord)),
                       static_cast<uint32_t>(sqlite3_column_int(row, port)));
}

}  // namespace

std::string object_line(const NodeId& id, const std::string& name, const std::string& label,
                        const std::string& url, bool active, uint32_t order, uint32_t port) {
    return fmt::format("{} {}|{}|{}|{}|{}|{}", id.to_string(), name, label, url, active, order,
                       port);
}

struct SqliteObjects::Statements {
    sqlite3* db = nullptr;
    sqlite3_stmt* insert = nullptr;
    std::map<sql_t, sqlite3_stmt*> questions;

    void check(int result) const {
        if (result != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(db));
    }
    void run(const char* sql) const { check(sqlite3_exec(db, sql, nullptr, nullptr, nullptr)); }
    [[nodiscard]] sqlite3_stmt* prepare(const char* sql) const {
        sqlite3_stmt* statement = nullptr;
        check(sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
        return statement;
    }
    /// `text` must live until the statement is reset.
    void bind_text(sqlite3_stmt* statement, int place, const std::string& text) const {
        check(sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()),
                                SQLITE_STATIC));
    }
    template <class Visit>
    size_t ask(const SqlQuestion& question, Visit&& visit) const {
        sqlite3_stmt* statement = questions.at(question.kind);
        int place = 0;
        for (const auto& value : question.values) {
            ++place;
            if (const auto* number = std::get_if<int64_t>(&value))
                check(sqlite3_bind_int64(statement, place, *number));
            else
                bind_text(statement, place, std::get<std::string>(value));
        }
        size_t rows = 0;
        int state = SQLITE_ROW;
        for (; (state = sqlite3_step(statement)) == SQLITE_ROW; ++rows) visit(statement);
        if (state != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db));
        check(sqlite3_reset(statement));
        return rows;
    }
};

SqliteObjects::SqliteObjects(const std::string& folder) : sql_(std::make_unique<Statements>()) {
    sql_->check(sqlite3_open((folder + "/query.sqlite").c_str(), &sql_->db));
    sql_->run("PRAGMA locking_mode=EXCLUSIVE");
    sql_->run("PRAGMA journal_mode=WAL");
    sql_->run("PRAGMA cache_size=-65536");
    sql_->run("PRAGMA mmap_size=268435456");
    sql_->run(
        "CREATE TABLE objects(id INTEGER PRIMARY KEY, parent INTEGER, class INTEGER, name TEXT,"
        " label TEXT, comment TEXT, url TEXT, active INTEGER, ord INTEGER, port INTEGER,"
        " master INTEGER)");
    sql_->run("BEGIN");
    sql_->insert = sql_->prepare("INSERT INTO objects VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11)");
}

SqliteObjects::~SqliteObjects() {
    sqlite3_finalize(sql_->insert);
    for (const auto& [kind, statement] : sql_->questions) sqlite3_finalize(statement);
    sqlite3_close(sql_->db);
}

void SqliteObjects::add(const ObjectRow& object) {
    sqlite3_stmt* insert = sql_->insert;
    const auto bind = [&](int place, int64_t value) {
        sql_->check(sqlite3_bind_int64(insert, place, value));
    };
    bind(1, number(object.id));
    bind(2, number(object.parent));
    bind(3, object.class_number);
    sql_->bind_text(insert, 4, object.name);
    sql_->bind_text(insert, 5, object.label);
    sql_->bind_text(insert, 6, object.comment);
    sql_->bind_text(insert, 7, object.url);
    bind(8, object.active ? 1 : 0);
    bind(9, object.order);
    bind(10, object.port);
    if (object.master.is_null())
        sql_->check(sqlite3_bind_null(insert, 11));
    else
        bind(11, number(object.master));
    if (sqlite3_step(insert) != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(sql_->db));
    sql_->check(sqlite3_reset(insert));
}

void SqliteObjects::done() {
    sql_->run("COMMIT");
    sql_->run("CREATE INDEX by_parent ON objects(parent, name)");
    sql_->run("CREATE INDEX by_active ON objects(active) WHERE active = 1");
    sql_->run("CREATE INDEX by_master ON objects(master) WHERE master IS NOT NULL");
    sql_->run("ANALYZE");
    for (const auto& [kind, sql] : kSql) sql_->questions[kind] = sql_->prepare(sql);
}

size_t SqliteObjects::ask(const SqlQuestion& question, std::vector<uint8_t>& bytes) {
    ByteWriter out(bytes);
    return sql_->ask(question, [&](sqlite3_stmt* row) { write_row(row, out); });
}

std::vector<std::string> SqliteObjects::lines(const SqlQuestion& question) {
    std::vector<std::string> lines;
    sql_->ask(question, [&](sqlite3_stmt* row) { lines.push_back(line_of(row)); });
    return lines;
}

}  // namespace bench
