// The tree that is asked, in both subjects under the same ids: ten regions with nineteen sites
// each, twenty-five nodes in each of these two hundred domains, twenty checks below each node.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "objects/world.h"
#include "query/sqlite_objects.h"

namespace bench {

struct TreeSize {
    uint32_t regions = 10, sites = 19, nodes = 25, checks = 20;
};

/// A check and the names on the way to it: region, site, node, its own.
struct CheckPlace {
    NodeId id;
    std::array<std::string, 4> names;
};

class QueryTree {
  public:
    /// Makes the tree in `folder`.
    QueryTree(const std::string& folder, const TreeSize& size);

    /// The values of `order` are below this.
    static constexpr uint32_t kOrders = 1000;
    /// So many checks have the same masterId.
    static constexpr uint32_t kChecksOfMaster = 100;
    /// The values of masterId, numbered from 0 up to masters().
    [[nodiscard]] static NodeId master(uint32_t number) { return {9, number + 1}; }
    [[nodiscard]] uint32_t masters() const { return made_ / kChecksOfMaster; }

    World world;
    SqliteObjects sqlite;
    std::vector<NodeId> regions, sites;
    /// Those below sites.
    std::vector<CheckPlace> checks;

  private:
    NodeId add(const NodeId& parent, uint32_t class_number, const std::string& name);
    NodeId add_domain(const NodeId& parent, const std::string& name);
    void add_nodes(const NodeId& domain, const std::string& region, const std::string& site);

    TreeSize size_;
    uint64_t seed_ = 42;
    uint32_t made_ = 0;  ///< checks so far
};

}  // namespace bench
