#include "dbcache/inheritance.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "support/test_store.h"
#include "test_classes.h"

using namespace dbcache_test;
using dbcache::kRootId;

namespace {

class InheritanceTest : public ::testing::Test {
  protected:
    // Whatever a test before this one has left.
    InheritanceTest() { logging::set_all_levels(logging::level_t::info); }
    void TearDown() override { EXPECT_EQ(world.fault(), ""); }

    NodeId folder(const std::string& name, Values values = {}) {
        values.push_back(text(prop::name, name));
        return world.create(kRootId, cls::Domain, values);
    }
    /// A value, with a mark when it is inherited.
    std::string shown(const NodeId& id, uint32_t property) {
        const auto values = world.values(id);
        const tql::property_t& value = *values.at(property).get();
        return (value.is_null ? "null" : value.print()) +
               ((value.flags & tql::kFlagInherited) != 0 ? " inherited" : "");
    }
    static tql::value_t inherit(uint32_t property) {
        auto request = std::make_unique<tql::property_string_t>(property, "");
        request->flags = tql::kFlagInherited;
        return request;
    }

    Hooks hooks;
    TestStore world{TestStore::Sizes{}, test_classes(hooks)};
};

}  // namespace

TEST_F(InheritanceTest, TakingAParentInheritsAllThatIsNotGivenInTheSameRequest) {
    const NodeId model = folder("model", {text(prop::label, "M"), number(prop::order, 9)});
    const NodeId heir = folder("heir", {text(prop::label, "H"), number(prop::order, 1)});
    EXPECT_EQ(shown(heir, prop::anyOverridden), "false") << "without a parent";
    EXPECT_EQ(shown(heir, prop::hasInherits), "false");
    world.update(heir, {object(prop::inherits, model), number(prop::order, 2)});
    EXPECT_EQ(shown(heir, prop::label), "\"M\" inherited");
    EXPECT_EQ(shown(heir, prop::order), "2");
    EXPECT_EQ(shown(heir, prop::name), "\"heir\"");
    EXPECT_EQ(shown(heir, prop::anyOverridden), "true");
    EXPECT_EQ(shown(heir, prop::hasInherits), "true");
    world.update(heir, {inherit(prop::order)});
    EXPECT_EQ(shown(heir, prop::order), "9 inherited");
    EXPECT_EQ(shown(heir, prop::anyOverridden), "false");
}

TEST_F(InheritanceTest, CopiesCatchUpWhenTheHeirIsWritten) {
    const NodeId model = folder("model", {text(prop::label, "M")});
    const NodeId heir = folder("heir", {object(prop::inherits, model)});
    EXPECT_EQ(shown(heir, prop::label), "\"M\" inherited");
    world.update(model, {text(prop::label, "N"), number(prop::order, 8)});
    EXPECT_EQ(shown(heir, prop::label), "\"M\" inherited");
    world.open();
    EXPECT_EQ(shown(heir, prop::label), "\"M\" inherited");
    world.update(heir, {});
    EXPECT_EQ(shown(heir, prop::label), "\"N\" inherited");
    EXPECT_EQ(shown(heir, prop::order), "8 inherited");
    // A null of the model is inherited as a null, not as a missing record.
    auto null_label = [] {
        return tql::value_t(
            std::make_unique<tql::property_string_t>(tql::property_string_t::null(prop::label)));
    };
    world.update(model, {null_label()});
    world.update(heir, {});
    EXPECT_EQ(shown(heir, prop::label), "null inherited");
    // And an own null overrides a value of the model.
    world.update(model, {text(prop::label, "again")});
    world.update(heir, {null_label()});
    EXPECT_EQ(shown(heir, prop::label), "null");
}

TEST_F(InheritanceTest, RefusalsAndAMissingParent) {
    const NodeId model = folder("model", {text(prop::label, "M")});
    const NodeId heir = folder("heir", {object(prop::inherits, model)});
    EXPECT_EQ(failure([&] { world.update(heir, {inherit(prop::name)}); }),
              "10 Property name does not allow inheritance");
    tql::value_t inherits = object(prop::inherits, model);
    inherits->flags = tql::kFlagInherited;
    for (const NodeId& one : {heir, model})
        EXPECT_EQ(failure([&] { world.update(one, {inherits}); }),
                  "10 Property inherits does not allow inheritance");
    EXPECT_EQ(failure([&] { world.update(model, {inherit(prop::label)}); }),
              "10 afterUpdate cannot set property label to be inherited");
    EXPECT_EQ(failure([&] { world.update(heir, {number(prop::inherits, 1)}); }),
              "9 Type mismatch for property inherits");
    EXPECT_EQ(failure([&] { world.update(heir, {number(prop::type, 2)}); }).substr(0, 33),
              "8 Cannot update const property ty");
    world.update(heir, {number(prop::type, 1)});
    world.remove(model);
    // The copies stay readable; only what needs the parent anew can't be had.
    EXPECT_EQ(shown(heir, prop::label), "\"M\" inherited");
    world.log.clear();
    EXPECT_EQ(failure([&] { world.update(heir, {}); }),
              "10 afterUpdate cannot set property label to be inherited");
    EXPECT_EQ(world.log.at(0),
              fmt::format("[dbcache] [warning] Error locating inheritance parent {} to object {}: "
                          "Object was deleted",
                          model, heir));
    world.update(heir, {null_object(prop::inherits)});
    EXPECT_EQ(shown(heir, prop::label), "\"M\"");
}

TEST_F(InheritanceTest, AFieldWithoutRecordReadsThroughToTheParent) {
    const NodeId nowhere{7, 7};
    const NodeId heir = folder("heir");
    // What the class has gained since an object was written has no record in it: as if the object
    // were not stored yet.
    dbcache::InheritanceChain chain(*world.store, heir, {});
    const dbcache::NodetypeSchema& schema = world.schemas.get(nodetype::Domain);
    const auto read = [&](uint32_t property) {
        tql::property_map_t out;
        schema.properties()[schema.findProperty(property, 0)].schema->encode(chain, heir, out);
        const tql::property_t& value = *out.at(property);
        return (value.is_null ? "null" : value.print()) +
               ((value.flags & tql::kFlagInherited) != 0 ? " inherited" : "");
    };
    EXPECT_EQ(read(prop::label), "null");
    EXPECT_EQ(read(prop::order), "5");
    chain.override_parent(folder("model", {text(prop::label, "M"), number(prop::order, 9)}));
    EXPECT_EQ(read(prop::label), "\"M\" inherited");
    EXPECT_EQ(read(prop::order), "9 inherited");
    EXPECT_EQ(read(prop::type), "1") << "not inheritable";
    world.log.clear();
    chain.override_parent(nowhere);
    EXPECT_EQ(read(prop::order), "5");
    EXPECT_EQ(read(prop::label), "null");
    mdb::PropertyString label(prop::label);
    const auto failure_at_level_1 = [&] {
        try {
            static_cast<void>(chain.read(1, label));
        } catch (const dbcache::EInheritance& failure) {
            return failure.text();
        }
        return std::string();
    };
    EXPECT_EQ(failure_at_level_1(), "No parent: No object with id 7.7");
    EXPECT_EQ(world.log, std::vector<std::string>{fmt::format(
                             "[dbcache] [warning] Error locating inheritance parent 7.7 to object "
                             "{}: No object with id 7.7",
                             heir)});
    chain.override_parent({});
    EXPECT_EQ(failure_at_level_1(), "No inheritance parent: Inherits is null");
}

namespace {

// clang-format off
constexpr uint32_t kSecond[] = {1};
constexpr dbcache::PropertyRow kVariedRows[] = {
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K | dbcache::X},
    {.number = prop::inherits, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X, .classes = kFolderOnly},
    {.number = prop::type, .kind = dbcache::kind_t::u32, .initial = 0, .determines_subtype = true},
    {.number = prop::comment, .kind = dbcache::kind_t::string, .flags = dbcache::N, .subtypes = kSecond},
    {.number = prop::description, .kind = dbcache::kind_t::string, .flags = dbcache::N | dbcache::C},
};
// clang-format on

/// Folders of two subtypes, which can be inherited.
class VariedSchema : public dbcache::TableSchema<dbcache::NodetypeSchema> {
  public:
    VariedSchema()
        : TableSchema({.nodetype = nodetype::Domain,
                       .tql_class = cls::Domain,
                       .properties = kVariedRows,
                       .children = kFolderChildren}) {}
    uint32_t subtypeFromChain(const dbcache::PropertyChain& chain) const override {
        dbcache::work_t type;
        properties()[*subtypeProperty(prop::type)].schema->load(chain, type);
        return static_cast<const mdb::PropertyUint32&>(*type.prop).value;
    }
    uint32_t subtypeFromWork(const dbcache::WorkArray& work) const override {
        return static_cast<const mdb::PropertyUint32&>(*work[*subtypeProperty(prop::type)].prop)
            .value;
    }
};

}  // namespace

TEST(InheritedSubtype, DecidesAnewWithEachWrite) {
    TestStore world(TestStore::Sizes{}, [](dbcache::SchemaTable& table) {
        table.registerSchema(std::make_unique<VariedSchema>());
        table.seal();
    });
    const NodeId model =
        world.create(kRootId, cls::Domain,
                     {text(prop::name, "model"), number(prop::type, 1), text(prop::comment, "M"),
                      text(prop::description, "never to change")});
    const NodeId heir = world.create(kRootId, cls::Domain, {text(prop::name, "heir")});
    EXPECT_EQ(world.value(heir, prop::comment), "-");
    world.update(heir, {object(prop::inherits, model), text(prop::comment, "own")});
    EXPECT_EQ(world.value(heir, prop::type), "1");
    EXPECT_EQ(world.value(heir, prop::comment), "\"own\"");
    EXPECT_EQ(world.value(heir, prop::description), "null") << "const, and had no value";
    const NodeId other = world.create(kRootId, cls::Domain,
                                      {text(prop::name, "other"), object(prop::inherits, model)});
    EXPECT_EQ(world.value(other, prop::comment), "\"M\"");

    world.update(model, {number(prop::type, 0)});
    EXPECT_EQ(failure([&] { world.update(other, {text(prop::comment, "late")}); }),
              "7 Attempted update of unknown property \"comment\"");
    world.update(other, {});
    EXPECT_EQ(world.value(other, prop::type), "0");
    EXPECT_EQ(world.value(other, prop::comment), "-");
    EXPECT_EQ(world.fault(), "");
}
