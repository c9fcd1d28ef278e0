// The same tree in SQLite: one table of objects with their parents, and the question which marked
// ones stand below an object put in the two ways that there are.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "util/node_id.h"

namespace bench {

class SqliteTree {
  public:
    explicit SqliteTree(const std::string& folder);
    ~SqliteTree();
    SqliteTree(const SqliteTree&) = delete;
    SqliteTree& operator=(const SqliteTree&) = delete;

    /// All objects, then done().
    void add(const NodeId& id, const NodeId& parent, const std::string& name, bool active);
    void done();

    /// Ids of the active objects below `origin`, with their names read: by a recursive query from
    /// the origin down over the index of parents.
    [[nodiscard]] std::vector<NodeId> active_below(const NodeId& origin);
    /// The same from the active ones, by their index, up to the origin.
    [[nodiscard]] std::vector<NodeId> active_up_to(const NodeId& origin);

  private:
    struct Statements;
    std::unique_ptr<Statements> sql_;
};

}  // namespace bench
