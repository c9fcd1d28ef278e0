// The same objects in SQLite: one table with an index for each of the questions, each question a
// prepared statement, each answer written as bytes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "util/node_id.h"

namespace bench {

struct ObjectRow {
    NodeId id{};
    NodeId parent{};
    uint32_t class_number = 0;
    std::string name{}, label{}, comment{}, url{};
    bool active = false;
    uint32_t order = 0;
    uint32_t port = 161;
    /// Null where the object has none.
    NodeId master{};
};

enum class sql_t { by_id, by_path, below, active_below, master_below, order_below };

/// A question with its values in the order of the statement.
struct SqlQuestion {
    sql_t kind = sql_t::by_id;
    std::vector<std::variant<int64_t, std::string>> values;
};

class SqliteObjects {
  public:
    explicit SqliteObjects(const std::string& folder);
    ~SqliteObjects();
    SqliteObjects(const SqliteObjects&) = delete;
    SqliteObjects& operator=(const SqliteObjects&) = delete;

    /// All objects, then done().
    void add(const ObjectRow& object);
    void done();

    /// Writes class, id, parent and the six properties of each object of the answer into `bytes`,
    /// over what is there, and gives the number of objects.
    size_t ask(const SqlQuestion& question, std::vector<uint8_t>& bytes);
    /// The answer as text, one line for each object, in no order.
    [[nodiscard]] std::vector<std::string> lines(const SqlQuestion& question);

    [[nodiscard]] static int64_t number(const NodeId& id) {
        return static_cast<int64_t>(uint64_t{id.first} << 32 | id.second);
    }

  private:
    struct Statements;
    std::unique_ptr<Statements> sql_;
};

/// A line of text for an object, as lines() gives it.
[[nodiscard]] std::string object_line(const NodeId& id, const std::string& name,
                                      const std::string& label, const std::string& url, bool active,
                                      uint32_t order, uint32_t port);

}  // namespace bench
