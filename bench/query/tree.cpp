#include "query/tree.h"

#include <fmt/format.h>

#include "dbcache/fixed_ids.h"
#include "query/classes.h"
#include "tql/names.h"

namespace bench {

QueryTree::QueryTree(const std::string& folder, const TreeSize& size)
    : world(folder, declare_query_classes), sqlite(folder), size_(size) {
    // Both subjects hold all of it in memory, ours by the server's own sizes of its caches.
    sqlite.add({.id = dbcache::kRootId, .class_number = cls::Domain});
    for (uint32_t r = 0; r < size.regions; ++r) {
        const std::string region = fmt::format("region {}", r);
        regions.push_back(add_domain(dbcache::kRootId, region));
        add_nodes(regions.back(), region, {});
        for (uint32_t s = 0; s < size.sites; ++s) {
            const std::string site = fmt::format("site {}", s);
            sites.push_back(add_domain(regions.back(), site));
            add_nodes(sites.back(), region, site);
        }
    }
    sqlite.done();
}

NodeId QueryTree::add_domain(const NodeId& parent, const std::string& name) {
    return add(parent, cls::Domain, name);
}

void QueryTree::add_nodes(const NodeId& domain, const std::string& region,
                          const std::string& site) {
    for (uint32_t n = 0; n < size_.nodes; ++n) {
        const std::string node = fmt::format("node {}", n);
        const NodeId node_id = add(domain, cls::Node, node);
        for (uint32_t c = 0; c < size_.checks; ++c) {
            const std::string check = fmt::format("check {}", c);
            const NodeId id = add(node_id, cls::Check, check);
            if (!site.empty()) checks.push_back({id, {region, site, node, check}});
        }
    }
}

NodeId QueryTree::add(const NodeId& parent, uint32_t class_number, const std::string& name) {
    seed_ = seed_ * 6364136223846793005U + 1442695040888963407U;
    const bool check = class_number == cls::Check;
    ObjectRow row{.parent = parent,
                  .class_number = class_number,
                  .name = name,
                  .label = "Utilization of the " + name,
                  .comment = "Made for the benchmark, as long as such texts usually are",
                  .url = "http://wiki.example/" + name,
                  .active = check && made_ % 10 != 7,
                  .order = static_cast<uint32_t>((seed_ >> 33) % kOrders)};
    if (check) row.master = master(made_++ / kChecksOfMaster);
    Values values;
    values.push_back(text(prop::name, row.name));
    values.push_back(text(prop::label, row.label));
    values.push_back(text(prop::comment, row.comment));
    values.push_back(text(prop::infoUrl, row.url));
    values.push_back(flag(prop::active, row.active));
    values.push_back(number(prop::order, row.order));
    if (check) values.push_back(reference(prop::masterId, row.master));
    row.id = world.create(parent, class_number, values);
    sqlite.add(row);
    return row.id;
}

}  // namespace bench
