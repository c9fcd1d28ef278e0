// Thousands of random writes to a tree of all trial classes, deep and wide, against a
// simple model: which objects there are and where, their names and values, own and inherited, what
// they refer to, who is marked, what is counted. Background deletes go on in between, some writes
// are made to fail in the middle, transactions of several writes are aborted, and now and then the
// process dies. After each hundred steps all is compared and the database verified.
//
// TARMIK_MODEL_WRITES makes it longer, TARMIK_SEED repeats a run.
#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <iostream>
#include <random>

#include "dbcache/mark_index.h"
#include "support/rng.h"
#include "support/trial_world.h"

using namespace dbcache_test;

namespace {

constexpr uint64_t kWritesBetweenChecks = 100;
constexpr size_t kMostObjects = 400;
/// Apart from one another, so that no id of a deleted object comes back after a restart.
constexpr uint32_t kFirstNewId = 4'000'000'000U;
constexpr uint32_t kIdsOfOneRun = 1'000'000;

uint64_t setting(const char* name, uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

/// A value as stored: of an heir it is a copy, renewed by each write of the heir.
struct Value {
    std::string text;
    bool inherited = false;
};

struct Object {
    NodeId parent;
    uint32_t nodetype = 0;
    std::string name;
    Value label{"null"};
    Value order{"5"};
    /// Of a domain.
    Value owner{"null"};
    NodeId inherits{};
    bool active = false;
    /// What is shown of a check of either subtype.
    uint32_t type = 0;
    std::string port = "80";
    std::string value{};
    NodeId alert_group{};
    std::set<NodeId> depends_on{};

    [[nodiscard]] bool may_inherit() const {
        return nodetype == nodetype::Domain || nodetype == nodetype::Node;
    }
    [[nodiscard]] bool is_check() const {
        return nodetype == nodetype::NetCheck || nodetype == nodetype::AgentCheck;
    }
    [[nodiscard]] bool is_active() const { return active || nodetype == nodetype::NetCheck; }
};
using Tree = std::map<NodeId, Object>;
/// By property; none are 0.
using Counts = std::map<uint32_t, uint64_t>;

/// Where a nodetype may stand, and by which group.
struct Place {
    uint32_t nodetype;
    uint32_t class_number;
    uint32_t parent;
    std::optional<uint32_t> group;
};
constexpr Place kPlaces[] = {
    {nodetype::Domain, cls::Domain, nodetype::Domain, {}},
    {nodetype::Domain, cls::Domain, nodetype::MountPoint, {}},
    {nodetype::Node, cls::Node, nodetype::Domain, {}},
    {nodetype::MountPoint, cls::MountPoint, nodetype::Domain, {}},
    {nodetype::GridConfig, cls::GridConfig, nodetype::Domain, {}},
    {nodetype::NetCheck, cls::Check, nodetype::Node, 0},
    {nodetype::AgentCheckGroup, cls::CheckGroup, nodetype::Node, 1},
    {nodetype::AgentCheckGroup, cls::CheckGroup, nodetype::AgentCheckGroup, {}},
    {nodetype::AgentCheck, cls::Check, nodetype::AgentCheckGroup, {}},
    {nodetype::Plan, cls::Plan, nodetype::Node, {}},
};

// ---- the model ----------------------------------------------------------------------------------

class Model {
  public:
    Model() { tree[kRootId] = {.parent = {}, .nodetype = nodetype::Domain, .name = "Root domain"}; }

    [[nodiscard]] bool is_below(NodeId id, const NodeId& above) const {
        while (id != above && id != kRootId) id = tree.at(id).parent;
        return id == above;
    }
    [[nodiscard]] std::vector<NodeId> subtree(const NodeId& top) const {
        std::vector<NodeId> ids;
        for (const auto& [id, object] : tree)
            if (is_below(id, top)) ids.push_back(id);
        return ids;
    }
    /// Whether `id` could not stand under its parent by its name.
    [[nodiscard]] bool is_taken(const NodeId& id, const Object& wanted) const {
        return std::any_of(tree.begin(), tree.end(), [&](const auto& entry) {
            const Object& other = entry.second;
            return entry.first != id && other.parent == wanted.parent &&
                   other.nodetype == wanted.nodetype &&
                   (other.name == wanted.name || wanted.nodetype == nodetype::GridConfig);
        });
    }
    /// What the write of an heir takes over; false when its model is gone.
    bool catch_up(Object& object) const {
        const auto from = tree.find(object.inherits);
        for (Value Object::*member : {&Object::label, &Object::order, &Object::owner}) {
            if (!(object.*member).inherited) continue;
            if (from == tree.end()) return false;
            (object.*member).text = (from->second.*member).text;
        }
        return true;
    }
    /// Whether a group for alerts is one above the object.
    [[nodiscard]] bool may_alert(const Object& object) const {
        return !tree.contains(object.alert_group) || is_below(object.parent, object.alert_group);
    }
    [[nodiscard]] bool depends_on_itself(const NodeId& id, const Object& object) const {
        std::set<NodeId> seen;
        std::vector<NodeId> waiting(object.depends_on.begin(), object.depends_on.end());
        while (!waiting.empty()) {
            const NodeId at = waiting.back();
            waiting.pop_back();
            if (at == id) return true;
            const auto found = tree.find(at);
            if (found == tree.end() || !seen.insert(at).second) continue;
            waiting.insert(waiting.end(), found->second.depends_on.begin(),
                           found->second.depends_on.end());
        }
        return false;
    }
    /// Whether a write can leave `id` like `next`; brings its copies up to date.
    bool can_become(const NodeId& id, Object& next) const {
        return catch_up(next) && !is_taken(id, next) && may_alert(next) &&
               !depends_on_itself(id, next);
    }
    /// Whether all of the subtree can stand under `to`.
    bool can_move(const NodeId& id, const NodeId& to) {
        if (is_below(to, id)) return false;
        const NodeId from = std::exchange(tree[id].parent, to);
        const std::vector<NodeId> moved = subtree(id);
        const bool possible = std::all_of(moved.begin(), moved.end(), [&](const NodeId& one) {
            Object copy = tree[one];
            return catch_up(copy) && may_alert(copy);
        });
        tree[id].parent = from;
        return possible;
    }
    [[nodiscard]] bool is_model(const NodeId& id) const {
        return std::any_of(tree.begin(), tree.end(),
                           [&](const auto& entry) { return entry.second.inherits == id; });
    }
    [[nodiscard]] bool is_referred_to(const NodeId& id) const {
        return std::any_of(tree.begin(), tree.end(), [&](const auto& entry) {
            const Object& o = entry.second;
            return o.inherits == id || o.alert_group == id || o.depends_on.contains(id);
        });
    }

    Tree tree;
};

/// What lies below an object, itself included: who is in which list, and what it counts for.
struct Below {
    std::set<NodeId> active;
    std::set<NodeId> inheriting;
    Counts counts;
    size_t levels = 0;

    void add(const Below& more) {
        active.insert(more.active.begin(), more.active.end());
        inheriting.insert(more.inheriting.begin(), more.inheriting.end());
        for (const auto& [counter, count] : more.counts) counts[counter] += count;
        levels = std::max(levels, more.levels);
    }
    /// What `object` counts for beside what is counted below it.
    void count(const Object& object) {
        if (object.nodetype == nodetype::Node) {
            ++counts[prop::countNodes];
            if (counts.contains(prop::countNetChecks)) ++counts[prop::countNetCheckNodes];
        } else if (object.nodetype == nodetype::NetCheck) {
            ++counts[prop::countNetChecks];
        } else if (object.nodetype == nodetype::AgentCheck && object.active) {
            ++counts[prop::countAgentChecks];
        }
    }
};

// ---- the writes ---------------------------------------------------------------------------------

class WholeLayerTest : public ::testing::Test {
  protected:
    WholeLayerTest() {
        start_counting(world);
        limit_cache();
    }

    NodeId any(const std::function<bool(const NodeId&, const Object&)>& fits) {
        std::vector<NodeId> ids;
        for (const auto& [id, object] : tree)
            if (fits(id, object)) ids.push_back(id);
        if (ids.empty()) return {};
        return ids[rng.below(ids.size())];
    }
    NodeId any_folder() {
        return any([](const NodeId&, const Object& o) { return o.nodetype == nodetype::Domain; });
    }
    NodeId any_but_root() {
        return any([](const NodeId& id, const Object&) { return id != kRootId; });
    }
    std::string any_name() { return fmt::format("n{}", rng.below(25)); }

    /// Does `write`, which must succeed exactly if `possible`; true when it did. Now and then it is
    /// made to fail.
    bool attempt(bool possible, const std::function<void()>& write) {
        const bool faulty = rng.chance(5);
        if (faulty)
            trials.at_step(1 + rng.below(40),
                           [] { throw errors::tql(errors::ERR_ILLEGAL_VALUE, "trial"); });
        const std::string failed = failure(write);
        const bool spoilt = faulty && trials.struck() && !failed.empty();
        trials.off();
        if (!spoilt) {
            EXPECT_EQ(failed.empty(), possible) << failed;
            refused += failed.empty() ? 0 : 1;
        }
        ++writes;
        return failed.empty();
    }

    void create() {
        const Place& place = kPlaces[rng.below(std::size(kPlaces))];
        const auto fits = [&](const NodeId&, const Object& o) {
            return o.nodetype == place.parent;
        };
        // Often under the last one, so that the tree gets deep.
        const auto last = tree.find(last_made);
        const NodeId parent =
            last != tree.end() && fits(last->first, last->second) ? last->first : any(fits);
        if (parent.is_null() || tree.size() > kMostObjects) return;
        Object made{.parent = parent, .nodetype = place.nodetype, .name = any_name()};
        Values values;
        values.push_back(text(prop::name, made.name));
        bool possible = true;
        if (made.is_check()) possible = change_check(made, values);
        if (made.may_inherit()) change_inherited({}, made, values);
        if (made.nodetype == nodetype::Domain) change_references(made, values);
        tql::id_t under = tql::id_t::from_node_id(parent);
        if (place.group) under = {parent.first, parent.second, *place.group};
        possible = possible && model.can_become({}, made);
        NodeId id;
        if (!attempt(possible, [&] { id = world.create(under, place.class_number, values); }))
            return;
        tree[id] = made;
        if (rng.chance(70)) last_made = id;
    }
    void update() {
        const NodeId id = any_but_root();
        if (id.is_null()) return;
        Object next = tree[id];
        Values values;
        if (rng.chance(20)) values.push_back(text(prop::name, next.name = any_name()));
        bool possible = true;
        if (next.is_check()) possible = change_check(next, values);
        if (next.may_inherit()) change_inherited(id, next, values);
        if (next.nodetype == nodetype::Domain) change_references(next, values);
        possible = possible && model.can_become(id, next);
        if (attempt(possible, [&] { world.update(id, values); })) tree[id] = next;
    }
    /// False when it asks for a property that the subtype hasn't.
    bool change_check(Object& next, Values& values) {
        values.push_back(flag(prop::active, next.active = rng.chance(50)));
        if (rng.chance(30)) {
            next.type = static_cast<uint32_t>(rng.below(2));
            values.push_back(number(prop::type, next.type));
            // A value goes with the subtype that has it.
            (next.type == 0 ? next.value : next.port) = next.type == 0 ? "" : "80";
        }
        const uint32_t meant = rng.chance(90) ? next.type : 1 - next.type;
        if (rng.chance(50)) return true;
        if (meant == 0) {
            const auto port = static_cast<uint32_t>(rng.below(1000));
            next.port = std::to_string(port);
            values.push_back(number(prop::port, port));
        } else {
            next.value = any_name();
            values.push_back(text(prop::value, next.value));
        }
        return meant == next.type;
    }
    void change_inherited(const NodeId& id, Object& next, Values& values) {
        if (rng.chance(30) && !model.is_model(id)) {
            const NodeId from = any([&](const NodeId& one, const Object& o) {
                return o.nodetype == next.nodetype && one != id && one != kRootId &&
                       o.inherits.is_null();
            });
            const bool had_model = !next.inherits.is_null();
            next.inherits = rng.chance(30) ? NodeId{} : from;
            if (!had_model || next.inherits.is_null()) {
                next.label.inherited = next.order.inherited = !next.inherits.is_null();
                next.owner.inherited = next.label.inherited && next.nodetype == nodetype::Domain;
            }
            values.push_back(next.inherits.is_null() ? null_object(prop::inherits)
                                                     : object(prop::inherits, next.inherits));
        }
        if (rng.chance(30)) {
            const std::string label(rng.below(4) * 100 + 1, static_cast<char>('a' + rng.below(26)));
            give(next.label, '"' + label + '"', text(prop::label, label), values);
        }
        if (rng.chance(30)) {
            const auto order = static_cast<uint32_t>(rng.below(1000));
            give(next.order, std::to_string(order), number(prop::order, order), values);
        }
    }
    /// Gives the value itself, or asks for that of the model.
    void give(Value& next, const std::string& shown, tql::value_t value, Values& values) {
        next = {shown, rng.chance(30)};
        if (next.inherited) value->flags = tql::kFlagInherited;
        values.push_back(std::move(value));
    }
    void change_references(Object& next, Values& values) {
        if (rng.chance(15)) {
            next.alert_group = rng.chance(50) ? next.parent : any_folder();
            if (!tree.contains(next.alert_group) ||
                tree[next.alert_group].nodetype != nodetype::Domain)
                next.alert_group = {};
            values.push_back(next.alert_group.is_null()
                                 ? null_object(prop::alertGroup)
                                 : object(prop::alertGroup, next.alert_group));
        }
        if (rng.chance(15)) {
            const NodeId owner = rng.chance(50) ? kRootId : NodeId{};
            give(next.owner, shown(owner),
                 owner.is_null() ? null_object(prop::owner) : object(prop::owner, owner), values);
        }
        if (rng.chance(15)) {
            next.depends_on.clear();
            for (uint64_t left = rng.below(3); left > 0; --left)
                next.depends_on.insert(any_folder());
            values.push_back(dbcache_test::objects(
                prop::dependsOn, {next.depends_on.begin(), next.depends_on.end()}));
        }
    }
    void move() {
        const NodeId id = any([](const NodeId& one, const Object& o) {
            return one != kRootId && o.nodetype != nodetype::GridConfig;
        });
        if (id.is_null()) return;
        Object next = tree[id];
        const NodeId to = any([&](const NodeId&, const Object& o) {
            return std::any_of(std::begin(kPlaces), std::end(kPlaces), [&](const Place& place) {
                return place.nodetype == next.nodetype && place.parent == o.nodetype;
            });
        });
        if (to == next.parent) return;
        const bool possible = model.can_move(id, to);
        next.parent = to;
        if (attempt(possible && model.can_become(id, next),
                    [&] { world.update(id, {object(prop::parentId, to)}); }))
            tree[id] = next;
    }
    void remove(bool in_batch) {
        const NodeId id = any_but_root();
        if (id.is_null()) return;
        const std::vector<NodeId> gone = model.subtree(id);
        // Large ones only while there are many.
        if (gone.size() > 1 + tree.size() / (tree.size() > kMostObjects / 2 ? 2 : 20)) return;
        // Until it is gone from the store, too, a model still passes its values on.
        const bool waits = std::any_of(
            gone.begin(), gone.end(), [&](const NodeId& one) { return model.is_referred_to(one); });
        if (waits && in_batch) return;
        if (!attempt(true, [&] { world.remove(id); })) return;
        for (const NodeId& one : gone) tree.erase(one);
        removed.assign(gone.begin(), gone.end());
        if (waits) work_in_background(~size_t{0});
    }
    void work_in_background(size_t steps) {
        auto& resolver = world.store->resolver();
        for (; steps > 0 && resolver.has_work(); --steps) resolver.doWork();
    }
    void die() {
        first_new_id -= kIdsOfOneRun;
        world.open(first_new_id);
        limit_cache();
    }
    void limit_cache() {
        world.store->resolver().resume();
        world.store->cache().cache_set_limits(20, 20, 60);
    }
    void one_write(bool in_batch) {
        const uint64_t kind = rng.below(95);
        if (kind < 35)
            create();
        else if (kind < 70)
            update();
        else if (kind < 85)
            move();
        else
            remove(in_batch);
    }
    /// Several writes in one transaction, half of which are aborted.
    void batch() {
        const Tree before = tree;
        const std::vector<NodeId> removed_before = removed;
        dbcache::StoreTransaction transaction(*world.store);
        for (uint64_t left = 1 + rng.below(8); left > 0; --left) one_write(true);
        if (rng.chance(50)) return transaction.commit(true);
        tree = before;
        removed = removed_before;
    }
    void step() {
        const uint64_t kind = rng.below(1000);
        if (kind < 920)
            one_write(false);
        else if (kind < 950)
            batch();
        else if (kind < 998)
            work_in_background(rng.below(10));
        else
            die();
    }

    // ---- comparing ------------------------------------------------------------------------------

    void compare() {
        EXPECT_EQ(world.fault(), "");
        EXPECT_EQ(verification(world), "");
        seen = 0;
        const Below all = compare_subtree(kRootId);
        if (HasFailure()) return;
        EXPECT_EQ(seen, tree.size());
        most_seen = std::max(most_seen, seen);
        most_levels = std::max(most_levels, all.levels);
        for (const NodeId& id : removed) EXPECT_FALSE(world.find(id)) << id.to_string();
        if (!world.store->resolver().has_work()) compare_stored();
    }
    /// With all deletes done nothing else lies in the store.
    void compare_stored() {
        std::set<NodeId> wanted{dbcache::kSequenceId};
        for (const auto& [id, object] : tree) wanted.insert(id);
        std::set<NodeId> found;
        mdb::IndexTable& indexes = *world.indexes;
        for (auto it = indexes.iterate_first(mdb::node_id_index); it.valid();
             indexes.iterator_next(it))
            found.insert(indexes.iterator_key(it));
        EXPECT_EQ(found, wanted);
    }
    Below compare_subtree(const NodeId& id) {
        ++seen;
        const Object& object = tree.at(id);
        SCOPED_TRACE(id.to_string());
        compare_values(object, world.values(id));
        std::set<NodeId> wanted;
        for (const auto& [one, other] : tree)
            if (other.parent == id) wanted.insert(one);
        EXPECT_EQ(children_of(id), wanted);
        Below below;
        for (const NodeId& child : wanted)
            if (!HasFailure()) below.add(compare_subtree(child));
        // One that went wrong has been told; what is above it doesn't know all.
        if (HasFailure()) return below;
        if (object.nodetype == nodetype::MountPoint) below.counts.clear();
        compare_counts(world.values(id), below.counts);
        below.count(object);
        if (object.is_active()) below.active.insert(id);
        if (!object.inherits.is_null()) below.inheriting.insert(id);
        compare_list(id, prop::activeMark, below.active);
        compare_list(id, prop::inheritsMark, below.inheriting);
        below.levels += 1;
        return below;
    }
    /// Those in groups too.
    std::set<NodeId> children_of(const NodeId& id) {
        std::set<NodeId> all;
        for (const std::string& child : world.children(id)) {
            if (std::count(child.begin(), child.end(), '.') == 1) {
                EXPECT_TRUE(all.insert(NodeId::parse(child)).second);
                continue;
            }
            for (const std::string& member : world.children(*tql::id_t::parse(child)))
                EXPECT_TRUE(all.insert(NodeId::parse(member)).second);
        }
        return all;
    }
    void compare_values(const Object& object, const tql::property_map_t& values) {
        EXPECT_EQ(shown(values, prop::name), '"' + object.name + '"');
        if (object.is_check()) {
            EXPECT_EQ(shown(values, prop::active), object.active ? "true" : "false");
            EXPECT_EQ(shown(values, prop::type), std::to_string(object.type));
            EXPECT_EQ(shown(values, prop::port), object.type == 0 ? object.port : "-");
            EXPECT_EQ(shown(values, prop::value),
                      object.type == 1 ? '"' + object.value + '"' : "-");
        }
        if (object.nodetype == nodetype::Domain) {
            EXPECT_EQ(shown(values, prop::owner), shown(object.owner));
            EXPECT_EQ(shown(values, prop::alertGroup), shown(object.alert_group));
            EXPECT_EQ(shown(values, prop::dependsOn),
                      dbcache_test::objects(prop::dependsOn,
                                            {object.depends_on.begin(), object.depends_on.end()})
                          ->print());
        }
        if (!object.may_inherit()) return;
        EXPECT_EQ(shown(values, prop::inherits), shown(object.inherits));
        EXPECT_EQ(shown(values, prop::label), shown(object.label));
        EXPECT_EQ(shown(values, prop::order), shown(object.order));
    }
    static void compare_counts(const tql::property_map_t& values, const Counts& wanted) {
        Counts found;
        for (const auto& [property, value] : values) {
            if (property < prop::countNetChecks || property > prop::countEsxiChecks) continue;
            const auto& counter = static_cast<const tql::property_uint_t&>(*value);
            if (counter.value != 0) found[property] = counter.value;
        }
        EXPECT_EQ(found, wanted);
    }
    static std::string shown(const tql::property_map_t& values, uint32_t property) {
        const auto found = values.find(property);
        if (found == values.end()) return "-";
        const tql::property_t& value = *(*found).second;
        return (value.is_null ? "null" : value.print()) +
               ((value.flags & tql::kFlagInherited) != 0 ? " inherited" : "");
    }
    static std::string shown(const Value& value) {
        return value.text + (value.inherited ? " inherited" : "");
    }
    static std::string shown(const NodeId& id) {
        return id.is_null() ? "null" : object(prop::owner, id)->print();
    }
    /// A mark lists exactly the members below `id`, and itself.
    void compare_list(const NodeId& id, uint32_t mark, const std::set<NodeId>& wanted) {
        tqlengine::HandlerList list;
        dbcache::MarkIndex(*world.store, mark).traverse(list, id);
        std::set<NodeId> found;
        for (const auto& handler : list) found.insert(handler->tqlId().to_node_id());
        EXPECT_EQ(found, wanted) << tql::property_name(mark);
        EXPECT_EQ(list.size(), found.size());
    }

    const uint64_t seed = setting("TARMIK_SEED", std::random_device{}());
    support::Rng rng{seed};
    Trials trials;
    TestStore world{TestStore::Sizes{.block = 1024, .journal = 1 << 20, .capacity = 16 << 20},
                    trial_classes(trials)};
    Model model;
    Tree& tree = model.tree;
    NodeId last_made;
    std::vector<NodeId> removed;
    uint32_t first_new_id = kFirstNewId;
    size_t seen = 0;
    size_t most_seen = 0;
    size_t most_levels = 0;
    uint64_t writes = 0;
    uint64_t refused = 0;
};

}  // namespace

TEST_F(WholeLayerTest, RandomWritesAgreeWithTheModel) {
    std::cout << "TARMIK_SEED=" << seed << "\n";
    const uint64_t wanted = setting("TARMIK_MODEL_WRITES", 10'000);
    for (uint64_t checked = 0; writes < wanted && !HasFailure();) {
        SCOPED_TRACE(fmt::format("seed {} write {}", seed, writes));
        step();
        if (writes - checked < kWritesBetweenChecks) continue;
        compare();
        checked = writes;
    }
    work_in_background(~size_t{0});
    compare();
    std::cout << fmt::format("{} writes, {} refused by rule; up to {} objects on {} levels\n",
                             writes, refused, most_seen, most_levels);
    EXPECT_GT(refused, writes / 50) << "few of the writes were refused";
    EXPECT_GT(most_seen, kMostObjects / 4) << "the tree stayed small";
}
