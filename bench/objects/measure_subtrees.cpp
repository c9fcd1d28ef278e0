#include <algorithm>
#include <fmt/format.h>

#include "common/folder.h"
#include "dbcache/fixed_ids.h"
#include "objects/classes.h"
#include "objects/measure.h"
#include "objects/world.h"
#include "tql/names.h"

namespace bench {

namespace {

constexpr uint32_t kChecksInFolder = 100;
constexpr double kMilli = 1e3, kMicro = 1e6;

/// A folder with `size` objects below it, most of them checks.
NodeId make_subtree(World& world, const NodeId& parent, uint32_t size) {
    const NodeId top = world.create(parent, cls::Domain, {text(prop::name, std::to_string(size))});
    NodeId folder = top;
    for (uint32_t made = 0; made < size; ++made) {
        const std::string name = std::to_string(made);
        if (made % kChecksInFolder == 0 && size > kChecksInFolder)
            folder = world.create(top, cls::Domain, {text(prop::name, name)});
        else
            world.create(folder, cls::Check,
                         {text(prop::name, name), flag(prop::active, made % 10 == 0)});
    }
    return top;
}

}  // namespace

Figures measure_subtrees(const std::string& base, const Sizes& sizes) {
    const Folder folder(base);
    World world(folder.path(), declare_classes);
    const NodeId here = world.create(dbcache::kRootId, cls::Domain, {text(prop::name, "here")});
    const NodeId there = world.create(dbcache::kRootId, cls::Domain, {text(prop::name, "there")});
    Figures figures;
    NodeId top;
    for (const uint32_t size : sizes.subtrees) {
        top = make_subtree(world, here, size);
        const uint32_t pairs = std::clamp(20'000 / size, 1U, 200U);
        const double seconds = seconds_of([&] {
            for (uint32_t i = 0; i < pairs; ++i)
                for (const NodeId& parent : {there, here})
                    world.update(top, {reference(prop::parentId, parent)});
        });
        figures[fmt::format("move_{}", size)] = seconds / (2 * pairs) * kMilli;
    }

    // All of it: what was moved last has the most below it.
    figures["delete_request"] = seconds_of([&] { world.remove(top); }) * kMilli;
    double longest = 0, all = 0;
    std::vector<double> steps;
    while (world.resolver().has_work()) {
        const double step = seconds_of([&] { world.resolver().doWork(); });
        steps.push_back(step);
        longest = std::max(longest, step);
        all += step;
    }
    std::sort(steps.begin(), steps.end());
    figures["delete_rate"] = (sizes.subtrees.back() + 1) / all;
    figures["delete_longest"] = longest * kMilli;
    figures["delete_usual"] = steps[steps.size() * 999 / 1000] * kMicro;
    return figures;
}

}  // namespace bench
