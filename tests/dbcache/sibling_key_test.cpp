// The check of keys among siblings: the index gives the answers of a comparison with one sibling
// after the other, whatever has been written, moved, deleted or undone.
#include "dbcache/sibling_key.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "dbcache/detail/record_writer.h"
#include "dbcache/inheritance.h"
#include "dbcache/object_view.h"
#include "dbcache/sibling_key_index.h"
#include "support/rng.h"
#include "support/test_store.h"
#include "test_classes.h"

using namespace dbcache;
using namespace dbcache_test;

namespace {

// clang-format off
constexpr uint32_t kItemOnly[] = {cls::Node};
constexpr PropertyRow kFolderKey[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X},
    {.number = prop::name, .kind = kind_t::string, .flags = K | X},
};
/// Two parts of a key, one of them nullable and without regard to case; both may be inherited.
constexpr PropertyRow kItemKey[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X},
    {.number = prop::name, .kind = kind_t::icase_string, .flags = K | N},
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kItemOnly},
    {.number = prop::label, .kind = kind_t::string, .flags = N | X, .unique_among_siblings = true},
    {.number = prop::order, .kind = kind_t::u32, .flags = K, .initial = 0},
};
constexpr PropertyRow kRivalKey[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X},
    {.number = prop::name, .kind = kind_t::string, .flags = K | X},
};
constexpr ChildRow kChildren[] = {{cls::Domain, nodetype::Domain}, {cls::Node, nodetype::Node}, {cls::Report, nodetype::Report}};
constexpr ChildRow kGrouped[] = {{cls::Node, nodetype::Node}};
constexpr ChildRow kUngrouped[] = {{cls::Domain, nodetype::Domain}, {cls::Report, nodetype::Report}};
constexpr GroupRow kGroup[] = {{0, cls::CheckGroup, kGrouped, "items", "Items", "Items of "}};
// clang-format on

/// `grouped`: items stand in a group, and rivals directly under the folder.
std::function<void(SchemaTable&)> classes(const Hooks& hooks, bool grouped) {
    return [&hooks, grouped](SchemaTable& table) {
        ClassTable folder{.nodetype = nodetype::Domain,
                          .tql_class = cls::Domain,
                          .properties = kFolderKey,
                          .children = kChildren,
                          .sibling_name = prop::name};
        if (grouped) {
            folder.children = kUngrouped;
            folder.groups = kGroup;
        }
        table.registerSchema(std::make_unique<TableSchema<NodetypeSchema>>(folder));
        table
            .registerSchema(std::make_unique<HookedSchema>(ClassTable{.nodetype = nodetype::Node,
                                                                      .tql_class = cls::Node,
                                                                      .properties = kItemKey,
                                                                      .sibling_name = prop::name},
                                                           hooks))
            .addKeyClass(cls::Report);
        table
            .registerSchema(std::make_unique<HookedSchema>(ClassTable{.nodetype = nodetype::Report,
                                                                      .tql_class = cls::Report,
                                                                      .properties = kRivalKey,
                                                                      .sibling_name = prop::name},
                                                           hooks))
            .addKeyClass(cls::Node);
        table.seal();
    };
}

class KeyModel {
  public:
    KeyModel(uint64_t seed, bool grouped)
        : rng_(seed), world_({.block = 4096, .journal = 4 << 20}, classes(hooks_, grouped)) {
        for (const char* name : {"a", "b", "c"}) folders_.push_back(world_.domain(kRootId, name));
        // Items as an older server may have left them: without a record of their own for the name.
        const NodeId above = world_.create(folders_[0], cls::Node, {text(prop::name, "above")});
        objects_.push_back(above);
        for (const NodeId& folder : folders_) objects_.push_back(store_without_name(folder, above));
        world_.open();
        for (uint32_t i = 0; i < 150; ++i) static_cast<void>(failure([&] { create(); }));
    }

    void run(int steps) {
        for (int step = 0; step < steps; ++step) {
            SCOPED_TRACE(fmt::format("step {}", step));
            if (rng_.below(200) == 0) shake();
            one_write();
            compare_hot();
            compare(random_folder(), random_name());
            if (step % 100 == 0) {
                EXPECT_EQ(world_.fault(), "");
            }
            if (::testing::Test::HasFailure()) return;
        }
        EXPECT_GT(answered_, steps / 10) << "the index was hardly ever asked";
        EXPECT_GT(equal_, steps / 10) << "hardly ever was there an equal sibling";
        EXPECT_GT(done_, steps / 4);
    }

  private:
    NodeId store_without_name(const NodeId& parent, const NodeId& above) {
        const NodeId id = world_.store->resolver().new_node_id();
        RecordWriter writer(world_.database->serializer());
        writer.add_head(id, parent, {}, nodetype::Node);
        writer.add(mdb::PropertyNodeId(prop::inherits, above));
        static_cast<void>(world_.objects->store_object({}));
        return id;
    }

    [[nodiscard]] NodeId random_folder() { return folders_[rng_.below(folders_.size())]; }
    /// Few enough to collide; the case makes no difference to items, but to rivals.
    [[nodiscard]] std::string random_name() {
        const std::string name = fmt::format("{}{}", rng_.chance(30) ? "N" : "n", rng_.below(90));
        return rng_.below(40) == 0 ? (rng_.chance(50) ? "above" : "") : name;
    }
    [[nodiscard]] tql::value_t null_text(uint32_t number) {
        return std::make_unique<tql::property_string_t>(tql::property_string_t::null(number));
    }
    [[nodiscard]] Values random_values(bool item) {
        Values values;
        if (!item || rng_.chance(80)) values.push_back(text(prop::name, random_name()));
        if (!item) return values;
        if (rng_.chance(30))
            values.push_back(number(prop::order, static_cast<uint32_t>(rng_.below(2))));
        if (rng_.chance(20)) values.push_back(text(prop::label, random_name()));
        if (rng_.chance(5)) values.push_back(null_text(prop::name));
        if (rng_.chance(10)) values.push_back(object(prop::inherits, objects_[rng_.below(4)]));
        if (rng_.chance(5)) values.push_back(null_object(prop::inherits));
        if (rng_.chance(10)) {
            tql::value_t inherit = text(prop::name, "");
            inherit->flags = kStateInherited;
            values.push_back(std::move(inherit));
        }
        return values;
    }

    void create() {
        const bool item = rng_.chance(70);
        const NodeId made =
            world_.create(random_folder(), item ? cls::Node : cls::Report, random_values(item));
        objects_.push_back(made);
    }
    void update(const NodeId& id) {
        Values values = random_values(world_.get(id)->class_number() == cls::Node);
        if (rng_.chance(20)) values.push_back(object(prop::parentId, random_folder()));
        note_hot(id);
        world_.update(id, values);
    }
    void remove() {
        // The first ones are what others inherit from; what is gone cannot be inherited.
        if (objects_.size() < 100) return;
        const size_t victim = 4 + rng_.below(objects_.size() - 4);
        note_hot(objects_[victim]);
        world_.remove(objects_[victim]);
        objects_.erase(objects_.begin() + static_cast<std::ptrdiff_t>(victim));
    }
    void one_write() {
        arm_hook();
        hot_.clear();
        const size_t before = objects_.size();
        const std::string failed = failure([&] {
            const uint64_t kind = rng_.below(100);
            if (kind < 30)
                create();
            else if (kind < 85)
                update(objects_[rng_.below(objects_.size())]);
            else
                remove();
        });
        hooks_ = {};
        if (failed.empty()) {
            ++done_;
            objects_.insert(objects_.end(), nested_.begin(), nested_.end());
        } else {
            objects_.resize(std::min(before, objects_.size()));
        }
        nested_.clear();
    }

    /// Some writes fail after they have been stored, with or without another write inside them.
    void arm_hook() {
        if (!rng_.chance(30)) return;
        const bool fails = rng_.chance(70);
        const bool nests = rng_.chance(50);
        const auto hook = [this, fails, nests](ObjectHandler&) { hooked(fails, nests); };
        (rng_.chance(50) ? hooks_.after_update : hooks_.after_store) = hook;
    }
    void hooked(bool fails, bool nests) {
        hooks_ = {};
        if (rng_.chance(30)) drop_keys();
        compare_hot();
        if (nests) nest(!fails);
        if (fails) throw errors::tql(errors::ERR_ILLEGAL_VALUE, "hook");
    }
    /// A write inside a write, with answers compared in the open transaction. An object that was
    /// made inside must not go by an abort of the outer write.
    void nest(bool may_create) {
        static_cast<void>(failure([&] {
            if (may_create && rng_.chance(50))
                nested_.push_back(world_.create(random_folder(), cls::Node, random_values(true)));
            else
                update(objects_[rng_.below(objects_.size())]);
        }));
        compare_hot();
    }
    void drop_keys() {
        SiblingKeyIndex& keys = world_.store->sibling_keys();
        const size_t bound = keys.max_entries();
        keys.set_max_entries(0);
        keys.set_max_entries(bound);
    }

    /// What happens around the writes: a small cache, a small bound, a new start.
    void shake() {
        if (rng_.chance(20)) world_.open();
        const uint32_t room = rng_.chance(50) ? 1 : 50;
        world_.store->cache().cache_set_limits(room, room, room);
        world_.store->sibling_keys().set_max_entries(rng_.chance(30) ? rng_.below(250) : 100'000);
    }

    /// The key that `id` has before a write is asked for while the write runs and after it, where
    /// the object was and where it may be.
    void note_hot(const NodeId& id) {
        const ObjectHandlerRef object = world_.store->resolver().find_object(id);
        const InheritanceChain chain(*world_.store, id, object->location());
        hot_.emplace_back(object->parent_id(), read_text(chain, object->schema(), prop::name));
    }
    void compare_hot() {
        for (const auto& [folder, name] : hot_)
            for (int i = 0; i < 3; ++i) compare(folder, name);
    }

    /// Asks for one key among the children of `folder` both ways, in the name of one of them or of
    /// an object that doesn't exist yet.
    void compare(const NodeId& folder, const std::string& name) {
        const bool item = rng_.chance(70);
        const NodetypeSchema& schema = world_.schemas.get(item ? nodetype::Node : nodetype::Report);
        ObjectHandlerRef asker =
            world_.store->resolver().find_object(objects_[rng_.below(objects_.size())]);
        if (!asker || asker->nodetype() != schema.nodetype || asker->parent_id() != folder)
            asker =
                ObjectHandlerRef(new ObjectHandler(*world_.store, NodeId{9, 9}, folder, schema));
        WorkArray work(schema.properties().size());
        SiblingKey key(schema.key_classes());
        for (size_t i = 0; i < work.size(); ++i) {
            const PropertySchema& property = *schema.properties()[i].schema;
            if (!property.has(kPrimaryKey)) continue;
            if (property.property == prop::order)
                work[i].prop = std::make_unique<mdb::PropertyUint32>(prop::order, rng_.below(2));
            else
                work[i].prop = std::make_unique<mdb::PropertyString>(prop::name, name);
            key.add(property, work[i]);
        }
        const ObjectView view(*asker);
        const auto indexed = view.find_equal_sibling(NodeId{}, key);
        const auto scanned = view.SchemaObject::find_equal_sibling(NodeId{}, key);
        EXPECT_EQ(indexed, scanned);
        answered_ += world_.store->sibling_keys().knows(folder) ? 1 : 0;
        equal_ += scanned ? 1 : 0;
    }

    support::Rng rng_;
    Hooks hooks_;
    TestStore world_;
    std::vector<NodeId> folders_;
    /// Items and rivals; the first four are never deleted.
    std::vector<NodeId> objects_;
    std::vector<NodeId> nested_;
    /// Folders and names of what the write under way has touched.
    std::vector<std::pair<NodeId, std::string>> hot_;
    int answered_ = 0;
    int equal_ = 0;
    int done_ = 0;
};

}  // namespace

TEST(SiblingKeys, TheIndexAnswersLikeTheScan) {
    for (const bool grouped : {false, true})
        for (uint64_t seed = 1; seed <= 2; ++seed) {
            SCOPED_TRACE(fmt::format("seed {} grouped {}", seed, grouped));
            KeyModel(seed, grouped).run(500);
            if (HasFailure()) return;
        }
}
