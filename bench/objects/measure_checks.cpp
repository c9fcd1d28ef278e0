#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <malloc.h>
#include <optional>
#include <stdexcept>

#include "common/folder.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/schema/declare_all.h"
#include "objects/measure.h"
#include "objects/world.h"
#include "tql/names.h"

namespace bench {

namespace {

constexpr double kMilli = 1e3, kMega = 1e6;
constexpr uint32_t kNodesOfDomain = 100;

/// What is allocated now. A forked process begins with memory that its parent had freed, so that
/// what it needs doesn't show in its resident size.
double allocated_bytes() {
    const struct mallinfo2 info = ::mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

/// Where the ids of the checks are kept from one process to the next.
std::string ids_path(const std::string& folder) {
    return folder + "/ids";
}

Figures create_all(const std::string& folder, const Sizes& sizes) {
    World world(folder, dbcache::schema::declare_all);
    const uint32_t count = sizes.real_checks / sizes.checks_of_node;
    std::vector<NodeId> nodes, checks;
    const auto make_nodes = [&] {
        NodeId domain;
        for (uint32_t i = 0; i < count; ++i) {
            if (i % kNodesOfDomain == 0)
                domain = world.create(dbcache::kRootId, cls::Domain,
                                      {text(prop::name, fmt::format("site{}", i))});
            nodes.push_back(
                world.create(domain, cls::Node, {text(prop::name, fmt::format("node{}", i))}));
        }
    };
    const auto make_checks = [&] {
        for (const NodeId& node : nodes) {
            tql::id_t group = tql::id_t::from_node_id(node);
            group.push_back(0);
            for (uint32_t i = 0; i < sizes.checks_of_node; ++i)
                checks.push_back(world.create(group, cls::Check, net_check(1 + i)));
        }
    };
    Figures figures;
    figures["node_create"] = count / seconds_of(make_nodes);
    figures["check_create"] =
        static_cast<double>(count) * sizes.checks_of_node / seconds_of(make_checks);
    std::ofstream(ids_path(folder), std::ios::binary)
        .write(reinterpret_cast<const char*>(checks.data()),
               static_cast<std::streamsize>(checks.size() * sizeof(NodeId)));
    return figures;
}

Figures start_and_read(const std::string& folder) {
    const std::string path = ids_path(folder);
    std::vector<NodeId> checks(std::filesystem::file_size(path) / sizeof(NodeId));
    std::ifstream(path, std::ios::binary)
        .read(reinterpret_cast<char*>(checks.data()),
              static_cast<std::streamsize>(checks.size() * sizeof(NodeId)));
    Figures figures;
    const double inherited = allocated_bytes();
    std::optional<World> world;
    const double seconds = seconds_of([&] {
        world.emplace(folder, dbcache::schema::declare_all, World::Options{.existing = true});
    });
    figures["start_all"] = seconds * kMilli;
    const double before = allocated_bytes();
    figures["start_memory"] = (before - inherited) / kMega;
    world->set_cache_size(2 * static_cast<uint32_t>(checks.size()));
    for (const NodeId& check : checks)
        if (world->read(check) < 10) throw std::runtime_error("wrong result: a check's values");
    const auto count = static_cast<double>(checks.size());
    figures["check_memory"] = (allocated_bytes() - before) / count;
    figures["check_file"] =
        static_cast<double>(std::filesystem::file_size(folder + "/objects.odb")) / count;
    return figures;
}

}  // namespace

Figures measure_checks(const std::string& base, const Sizes& sizes) {
    const Folder folder(base);
    Figures figures = run_in_child([&] { return create_all(folder.path(), sizes); });
    figures.merge(run_in_child([&] { return start_and_read(folder.path()); }));
    return figures;
}

}  // namespace bench
