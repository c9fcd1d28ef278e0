// What ids in inherited values become under the inheriting object's own node.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dbcache/class_table.h"
#include "dbcache/schema_table.h"
#include "support/test_store.h"

using namespace dbcache_test;
using namespace dbcache;

namespace {

// Two small trees that mirror each other. What stands in the group of a node has the groups of a
// node class in its place.
// clang-format off
constexpr uint32_t kConfigs[] = {cls::NodeClassCheckConfig};
constexpr uint32_t kGroupConfigs[] = {cls::NodeClassCheckGroupConfig};
constexpr PropertyRow kNameRows[] = {{.number = prop::name, .kind = kind_t::string, .flags = K}};
constexpr PropertyRow kGroupRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K | X},
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kGroupConfigs},
};
constexpr PropertyRow kCheckRows[] = {
    {.number = prop::parentId, .kind = kind_t::object, .flags = N | X},
    {.number = prop::name, .kind = kind_t::string, .flags = K | X},
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kConfigs},
    {.number = prop::remedyId, .kind = kind_t::object, .flags = N},
    {.number = prop::dependsOn, .kind = kind_t::object_set},
};
constexpr ChildRow kRootChildren[] = {{cls::Domain, nodetype::Domain}, {cls::Node, nodetype::Node}, {cls::NodeClass, nodetype::NodeClass}, {cls::Check, nodetype::NetCheck}};
constexpr ChildRow kClassChildren[] = {{cls::NodeClassNodeConfig, nodetype::NodeClassNodeConfig}};
constexpr ChildRow kGroupConfigChildren[] = {{cls::NodeClassCheckGroupConfig, nodetype::NodeClassCheckGroupConfig}, {cls::NodeClassCheckConfig, nodetype::NodeClassCheckConfig}};
constexpr ChildRow kGroupChildren[] = {{cls::CheckGroup, nodetype::AgentCheckGroup}, {cls::Check, nodetype::NetCheck}};
constexpr GroupRow kNodeGroups[] = {{0, cls::CheckGroup, kGroupChildren, "checks", "Checks", "Checks on "}};
// clang-format on

void declare(SchemaTable& table) {
    const auto add = [&](const ClassTable& one) {
        table.registerSchema(std::make_unique<TableSchema<NodetypeSchema>>(one));
    };
    add({.nodetype = nodetype::Domain,
         .tql_class = cls::Domain,
         .properties = kNameRows,
         .children = kRootChildren});
    add({.nodetype = nodetype::NodeClass,
         .tql_class = cls::NodeClass,
         .properties = kNameRows,
         .children = kClassChildren});
    add({.nodetype = nodetype::NodeClassNodeConfig,
         .tql_class = cls::NodeClassNodeConfig,
         .properties = kNameRows,
         .children = kGroupConfigChildren});
    add({.nodetype = nodetype::NodeClassCheckGroupConfig,
         .tql_class = cls::NodeClassCheckGroupConfig,
         .properties = kNameRows,
         .children = kGroupConfigChildren});
    add({.nodetype = nodetype::NodeClassCheckConfig,
         .tql_class = cls::NodeClassCheckConfig,
         .properties = kCheckRows});
    add({.nodetype = nodetype::Node,
         .tql_class = cls::Node,
         .properties = kNameRows,
         .groups = kNodeGroups});
    add({.nodetype = nodetype::AgentCheckGroup,
         .tql_class = cls::CheckGroup,
         .properties = kGroupRows,
         .children = kGroupChildren});
    add({.nodetype = nodetype::NetCheck, .tql_class = cls::Check, .properties = kCheckRows});
    table.seal();
}

tql::value_t set_of(uint32_t property, const std::vector<NodeId>& ids) {
    std::set<tql::id_t> values;
    for (const NodeId& id : ids) values.insert(tql::id_t::from_node_id(id));
    return std::make_unique<tql::property_object_set_t>(property, values);
}

class IdTranslationTest : public ::testing::Test {
  protected:
    IdTranslationTest() {
        const NodeId class_object = make(kRootId, cls::NodeClass, "class");
        top = make(class_object, cls::NodeClassNodeConfig, "top");
        checks = make(top, cls::NodeClassCheckGroupConfig, "checks");
        G = make(checks, cls::NodeClassCheckGroupConfig, "G");
        C = make(G, cls::NodeClassCheckConfig, "C");
        D = make(G, cls::NodeClassCheckConfig, "D");
        H = make(checks, cls::NodeClassCheckGroupConfig, "H");
        E = make(H, cls::NodeClassCheckConfig, "E");
        F = make(checks, cls::NodeClassCheckConfig, "F");
        node = make(kRootId, cls::Node, "node");
        g = make(node, cls::CheckGroup, "g", {object(prop::inherits, G)});
        d = make(g, cls::Check, "d", {object(prop::inherits, D)});
        h = make(node, cls::CheckGroup, "h", {object(prop::inherits, H)});
        e = make(h, cls::Check, "e", {object(prop::inherits, E)});
    }
    void TearDown() override { EXPECT_EQ(world.fault(), ""); }

    NodeId make(const NodeId& parent, uint32_t class_number, const std::string& name,
                Values values = {}) {
        values.push_back(text(prop::name, name));
        return world.create(parent, class_number, values);
    }
    /// What `id` in the reference of a new check under `parent` becomes that inherits from
    /// `model`, or the failure.
    std::string translated(const NodeId& parent, const NodeId& model, const NodeId& id) {
        world.update(model, {object(prop::remedyId, id)});
        NodeId heir;
        const std::string failed = failure([&] {
            heir = make(parent, cls::Check, "heir" + std::to_string(++heirs),
                        {object(prop::inherits, model)});
        });
        world.update(model, {null_object(prop::remedyId)});
        return failed.empty() ? world.value(heir, prop::remedyId) : failed;
    }

    TestStore world{TestStore::Sizes{}, declare};
    NodeId top, checks, G, C, D, H, E, F;
    NodeId node, g, d, h, e;
    int heirs = 0;
};

std::string quoted(const NodeId& id) {
    return '"' + id.to_string() + '"';
}

}  // namespace

TEST_F(IdTranslationTest, OneIdBecomesTheObjectThatInheritsFromIt) {
    EXPECT_EQ(translated(g, C, D), quoted(d)) << "a sibling";
    EXPECT_EQ(translated(g, C, E), quoted(e)) << "down another branch, two levels";
    EXPECT_EQ(translated(g, C, G), quoted(g)) << "above";
    EXPECT_EQ(translated(g, C, H), quoted(h));
    world.update(C, {object(prop::remedyId, C)});
    const NodeId c = make(g, cls::Check, "c", {object(prop::inherits, C)});
    EXPECT_EQ(world.value(c, prop::remedyId), quoted(c)) << "the parent stands for the heir";
    EXPECT_EQ(translated(node, F, D), quoted(d)) << "directly in the group of the node";
}

TEST_F(IdTranslationTest, WhatLiesOutsideOfNodeClassesStaysItself) {
    const NodeId other = make(kRootId, cls::Node, "other");
    const NodeId far = make(other, cls::Check, "far");
    EXPECT_EQ(translated(g, C, kRootId), quoted(kRootId));
    EXPECT_EQ(translated(g, C, far), quoted(far));
    EXPECT_EQ(translated(g, C, {7, 7}), "\"7.7\"") << "names nothing";
    EXPECT_EQ(translated(kRootId, C, D), quoted(D)) << "the heir stands under no node";
}

TEST_F(IdTranslationTest, IdsThatCannotBeTranslatedAreTold) {
    const NodeId class_object = make(kRootId, cls::NodeClass, "class 2");
    const NodeId top_2 = make(class_object, cls::NodeClassNodeConfig, "top");
    const NodeId foreign = make(top_2, cls::NodeClassCheckConfig, "foreign");
    const NodeId nested = make(G, cls::NodeClassCheckGroupConfig, "nested");
    const NodeId deep = make(nested, cls::NodeClassCheckConfig, "deep");
    const NodeId deep_2 = make(nested, cls::NodeClassCheckConfig, "deep 2");
    const auto no_object = [](const NodeId& id) {
        return fmt::format("10 No object corresponding to {} translating property remedyId", id);
    };
    EXPECT_EQ(translated(g, C, deep), no_object(deep));
    EXPECT_EQ(translated(g, C, checks), no_object(checks)) << "a group without storage";
    make(g, cls::Check, "d 2", {object(prop::inherits, D)});
    EXPECT_EQ(translated(g, C, D),
              fmt::format("10 More than one object corresponding to {} translating property "
                          "remedyId",
                          D));
    const auto with_new_id = [&](const NodeId& model, const NodeId& id) {
        world.update(model, {object(prop::remedyId, id)});
        return failure([&] {
            world.create(node, cls::Check, {text(prop::name, "new"), object(prop::inherits, model)},
                         0, NodeId{3, 3});
        });
    };
    EXPECT_EQ(with_new_id(C, foreign), "10 Cross-nodeclass reference in 3.3");
    EXPECT_EQ(with_new_id(deep, deep_2), "10 Translation error in 3.3");
}

TEST_F(IdTranslationTest, OfASetIdsWithoutCorrespondenceAreDropped) {
    const NodeId lonely = make(G, cls::NodeClassCheckConfig, "lonely");
    world.update(C, {set_of(prop::dependsOn, {D, lonely, kRootId, E})});
    const NodeId c = make(g, cls::Check, "c", {object(prop::inherits, C)});
    const auto shown = [&](std::vector<NodeId> ids) {
        return set_of(prop::dependsOn, ids)->print();
    };
    EXPECT_EQ(world.value(c, prop::dependsOn), shown({d, kRootId, e}));
    // With the next write of the heir the set catches up.
    const NodeId found = make(g, cls::Check, "found", {object(prop::inherits, lonely)});
    EXPECT_EQ(world.value(c, prop::dependsOn), shown({d, kRootId, e}));
    world.update(c, {});
    EXPECT_EQ(world.value(c, prop::dependsOn), shown({d, kRootId, e, found}));
    make(g, cls::Check, "d 2", {object(prop::inherits, D)});
    EXPECT_EQ(failure([&] { world.update(c, {}); }),
              fmt::format("10 More than one object corresponding to {} translating property "
                          "dependsOn",
                          D));
}

TEST_F(IdTranslationTest, AMoveToAnotherNodeTranslatesAnew) {
    const NodeId node_2 = make(kRootId, cls::Node, "node 2");
    const NodeId g_2 = make(node_2, cls::CheckGroup, "g", {object(prop::inherits, G)});
    world.update(C, {object(prop::remedyId, D)});
    const NodeId c = make(g, cls::Check, "c", {object(prop::inherits, C)});
    EXPECT_EQ(failure([&] { world.update(c, {object(prop::parentId, g_2)}); }),
              fmt::format("15 MOVE_ERR{{{}:remedyId}}", c));
    EXPECT_EQ(world.value(c, prop::remedyId), quoted(d));
    const NodeId d_2 = make(g_2, cls::Check, "d", {object(prop::inherits, D)});
    world.update(c, {object(prop::parentId, g_2)});
    EXPECT_EQ(world.value(c, prop::remedyId), quoted(d_2));
}

TEST_F(IdTranslationTest, ANodeClassInheritsFromAnotherOne) {
    const NodeId class_object = make(kRootId, cls::NodeClass, "derived");
    const NodeId top_2 = make(class_object, cls::NodeClassNodeConfig, "top");
    world.update(C, {object(prop::remedyId, top)});
    const NodeId config =
        make(top_2, cls::NodeClassCheckConfig, "C 2", {object(prop::inherits, C)});
    EXPECT_EQ(world.value(config, prop::remedyId), quoted(top_2));
}

TEST_F(IdTranslationTest, ATraceTellsOfEachTranslation) {
    world.update(C, {object(prop::remedyId, D), set_of(prop::dependsOn, {E})});
    logging::apply_levels({{"dbcache", 0}});
    world.log.clear();
    const NodeId c = make(g, cls::Check, "c", {object(prop::inherits, C)});
    logging::apply_levels({{"dbcache", 2}});
    EXPECT_THAT(world.log,
                testing::IsSupersetOf(
                    {fmt::format("[dbcache] [trace] Translating id {} in object Check:{} "
                                 "inheriting from {}",
                                 D, c, C),
                     fmt::format("[dbcache] [trace] Translating id set in object Check:{} "
                                 "inheriting from {}",
                                 c, C)}));
}
