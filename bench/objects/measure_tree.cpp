#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

#include "common/folder.h"
#include "dbcache/fixed_ids.h"
#include "objects/classes.h"
#include "objects/measure.h"
#include "objects/sqlite_tree.h"
#include "objects/world.h"
#include "tql/names.h"

namespace bench {

namespace {

constexpr uint32_t kFan = 10;
constexpr uint32_t kLevels = 4;
constexpr double kMicro = 1e6;

/// Folders ten to a folder, four levels of them; in each of the lowest one counted thing, at depth
/// five below the root, and its share of the checks.
struct Tree {
    std::vector<NodeId> levels[kLevels];
    std::vector<NodeId> things;
    std::vector<NodeId> checks, unmarked;
};

void expect(bool held, const std::string& what) {
    if (!held) throw std::runtime_error("wrong result: " + what);
}

/// One of the hundred checks below each folder of the third level is, another one in each.
bool is_marked(size_t check_in_folder, size_t folder) {
    return check_in_folder * kFan + folder % kFan == folder / kFan * 37 % 100;
}

Values check_values(const std::string& name, bool active) {
    return {text(prop::name, name), text(prop::label, "Utilization of the " + name),
            text(prop::comment, "Made for the benchmark, as long as such texts usually are"),
            text(prop::infoUrl, "http://wiki.example/" + name), flag(prop::active, active)};
}

class TreeRun {
  public:
    TreeRun(const std::string& folder, const Sizes& sizes)
        : sizes_(sizes), world_(folder, declare_classes), sqlite_(folder) {}

    std::map<std::string, Figures> run() {
        make_folders();
        make_checks();
        sqlite_.done();
        read();
        write();
        ask("all", dbcache::kRootId);
        ask("tenth", tree_.levels[0][3]);
        ask("few", tree_.levels[2][37]);
        return std::move(figures_);
    }

  private:
    Figures& ours() { return figures_["tarmik"]; }
    /// A different number each time, below `bound`.
    uint32_t random(uint32_t bound) {
        seed_ = seed_ * 6364136223846793005U + 1442695040888963407U;
        return static_cast<uint32_t>((seed_ >> 33) % bound);
    }
    template <class List>
    const auto& any_of(const List& list) {
        return list[random(static_cast<uint32_t>(list.size()))];
    }
    double rate(uint32_t count, const std::function<void()>& operation) {
        return count / seconds_of([&] {
                   for (uint32_t i = 0; i < count; ++i) operation();
               });
    }

    void make_folders() {
        std::vector<NodeId> above{dbcache::kRootId};
        for (std::vector<NodeId>& level : tree_.levels) {
            for (const NodeId& parent : above)
                for (uint32_t i = 0; i < kFan; ++i) {
                    const std::string name = fmt::format("folder {}", i);
                    level.push_back(world_.create(parent, cls::Domain, {text(prop::name, name)}));
                    sqlite_.add(level.back(), parent, name, false);
                }
            above = level;
        }
        for (const NodeId& parent : above)
            tree_.things.push_back(world_.create(
                parent, cls::Node, {text(prop::name, "thing"), flag(prop::active, false)}));
    }

    void make_checks() {
        const std::vector<NodeId>& parents = tree_.levels[kLevels - 1];
        const double seconds = seconds_of([&] {
            for (uint32_t i = 0; i < sizes_.checks; ++i) {
                const NodeId& parent = parents[i % parents.size()];
                const bool active = is_marked(i / parents.size(), i % parents.size());
                const std::string name = fmt::format("check {}", i);
                tree_.checks.push_back(
                    world_.create(parent, cls::Check, check_values(name, active)));
                sqlite_.add(tree_.checks.back(), parent, name, active);
                if (!active) tree_.unmarked.push_back(tree_.checks.back());
            }
        });
        ours()["create"] = sizes_.checks / seconds;
    }

    void read() {
        size_t properties = 0;
        ours()["read"] =
            rate(sizes_.reads, [&] { properties = world_.read(any_of(tree_.checks)); });
        expect(properties > 8, "properties of a check");
    }

    void write() {
        const auto update = [&] {
            world_.update(any_of(tree_.checks), {number(prop::order, random(1'000'000))});
        };
        ours()["update"] = rate(sizes_.updates, update);
        const auto toggle = [&](const NodeId& id, bool on) {
            world_.update(id, {flag(prop::active, on)});
        };
        // In pairs, so that the tree is afterwards what it was before.
        uint32_t turn = 0;
        const auto count = [&] {
            const NodeId& thing = tree_.things[(turn / 2 * 7919U) % tree_.things.size()];
            toggle(thing, turn++ % 2 == 0);
        };
        ours()["counter"] = rate(sizes_.updates, count);
        NodeId marked;
        const auto mark = [&] {
            if (turn % 2 == 0) marked = any_of(tree_.unmarked);
            toggle(marked, turn++ % 2 == 0);
        };
        turn = 0;
        ours()["mark"] = rate(sizes_.updates, mark);

        world_.set_durable(true);
        ours()["durable_update"] = rate(sizes_.durable_writes, update);
        turn = 0;
        ours()["durable_counter"] = rate(sizes_.durable_writes, count);
        turn = 0;
        ours()["durable_mark"] = rate(sizes_.durable_writes, mark);
        world_.set_durable(false);
    }

    /// Which active checks stand below `origin`?
    void ask(const std::string& where, const NodeId& origin) {
        const std::string key = "marked_" + where;
        const auto by_list = [&] {
            return world_.select(origin, "Domain*^ > Check[name]{active = true}");
        };
        const auto by_walk = [&] {
            return world_.select(origin, "Domain*^ > Check[name]{active <> false}");
        };
        const auto down = [&] { return sqlite_.active_below(origin); };
        const auto up = [&] { return sqlite_.active_up_to(origin); };
        std::vector<NodeId> answer = sorted(by_list());
        expect(!answer.empty(), "no marked objects at " + key);
        expect(sorted(by_walk()) == answer, "walk at " + key);
        expect(sorted(down()) == answer, "way down at " + key);
        expect(sorted(up()) == answer, "way up at " + key);
        const auto time = [&](const char* subject, uint32_t times, const auto& question) {
            figures_[subject][key] = kMicro / rate(times, [&] { static_cast<void>(question()); });
        };
        time("tarmik", sizes_.questions, by_list);
        time("walk", std::max(sizes_.questions / 50, 1U), by_walk);
        time("SQLite", std::max(sizes_.questions / 10, 1U), down);
        time("SQLite up", sizes_.questions, up);
    }

    static std::vector<NodeId> sorted(std::vector<NodeId> ids) {
        std::sort(ids.begin(), ids.end());
        return ids;
    }

    const Sizes& sizes_;
    World world_;
    SqliteTree sqlite_;
    Tree tree_;
    std::map<std::string, Figures> figures_;
    uint64_t seed_ = 42;
};

}  // namespace

std::map<std::string, Figures> measure_tree(const std::string& base, const Sizes& sizes) {
    const Folder folder(base);
    return TreeRun(folder.path(), sizes).run();
}

}  // namespace bench
