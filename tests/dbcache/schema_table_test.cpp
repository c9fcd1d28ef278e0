// Declaring classes and looking them up: what is refused, what a specialisation leaves, what
// sealing does.
#include "dbcache/schema_table.h"

#include <gtest/gtest.h>

#include "dbcache/class_table.h"
#include "dbcache/property_kinds.h"
#include "fake_tree.h"

namespace dbcache {
namespace {

std::shared_ptr<PropertySchema> number(uint32_t property, uint32_t flags = 0) {
    return make_property({.number = property, .kind = kind_t::u32, .flags = flags});
}

std::unique_ptr<NodetypeSchema> plain_class(uint32_t nodetype, uint32_t key = prop::name) {
    auto schema = std::make_unique<NodetypeSchema>(nodetype, cls::View);
    schema->addPropertySchema(number(key, kPrimaryKey));
    return schema;
}

std::vector<std::pair<uint32_t, uint32_t>> entries_of(const NodetypeSchema& schema,
                                                      uint32_t number) {
    std::vector<std::pair<uint32_t, uint32_t>> found;
    for (size_t i = 0; i < schema.properties().size(); ++i)
        if (schema.properties()[i].property == number)
            found.emplace_back(i, schema.properties()[i].subtype);
    return found;
}

TEST(SchemaTable, RefusesClassesThatBreakTheRules) {
    SchemaTable table;
    table.registerSchema(plain_class(3));
    EXPECT_DEATH(table.registerSchema(plain_class(3)), "Duplicate nodetype registration for 3");
    EXPECT_DEATH(table.registerSchema(plain_class(95)), "Nodetype out of range");
    EXPECT_DEATH(table.registerSchema(std::make_unique<NodetypeSchema>(4, cls::View)),
                 "No primary key declared for class View");
    table.registerSchema(std::make_unique<SingletonSchema>(5, cls::GridConfig));
    EXPECT_NE(table.find(5), nullptr);
    EXPECT_EQ(table.find(95), nullptr);
    EXPECT_EQ(table.find(0xFFFFFFFF), nullptr);
    EXPECT_THROW(static_cast<void>(table.get(94)), ENoSchema);
    try {
        static_cast<void>(table.get(200));
    } catch (const ENoSchema& none) {
        EXPECT_EQ(none.text(), "No schema found for nodetype 200");
        EXPECT_EQ(none.nodetype(), 200U);
    }
}

TEST(NodetypeSchema, KeepsPropertiesSortedAndApart) {
    NodetypeSchema schema(3, cls::View);
    for (const uint32_t one : {900U, 51U, 3803U, 200U}) schema.addPropertySchema(number(one));
    schema.addPropertySchema(number(300), 2);
    schema.addPropertySchema(number(300), 1);
    const auto entries = schema.properties();
    for (size_t i = 1; i < entries.size(); ++i)
        EXPECT_LT(std::pair(entries[i - 1].property, entries[i - 1].subtype),
                  std::pair(entries[i].property, entries[i].subtype));
    EXPECT_EQ(entries.size(), 11U);  // five of them are in every class
    EXPECT_EQ(entries[schema.findProperty(300, 2)].subtype, 2U);
    EXPECT_EQ(entries[schema.findProperty(900, 2)].property, 900U);
    EXPECT_EQ(test::failure_of([&] { static_cast<void>(schema.findProperty(300, 3)); }),
              "7: Unknown property \"" + tql::property_name(300) + "\"");
    EXPECT_EQ(test::failure_of([&] { static_cast<void>(schema.findProperty(prop::port, 0)); }),
              "7: Unknown property \"port\"");
    EXPECT_DEATH(schema.addPropertySchema(number(300), 1), "Property schema registered twice");
    EXPECT_DEATH(schema.addPropertySchema(number(prop::masterId)),
                 "Property schema registered twice");
}

TEST(NodetypeSchema, SpecialisationReplacesTheGenericEntry) {
    NodetypeSchema schema(3, cls::View);
    schema.addPropertySchema(number(prop::port));
    schema.addPropertySchema(number(prop::user));
    schema.addPropertySchema(number(prop::type), kAllSubtypes, true);
    const auto generic = schema.properties()[schema.findProperty(prop::port, 0)].schema;
    schema.addPropertySchemaSpecialization(prop::port, 3, 2, 4);
    schema.addPropertySchema(number(prop::port, kNullable), 3);
    const auto entries = entries_of(schema, prop::port);
    ASSERT_EQ(entries.size(), 3U);
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(entries[i].second, 2 + i);
    EXPECT_EQ(schema.properties()[entries[0].first].schema, generic);
    EXPECT_NE(schema.properties()[entries[1].first].schema, generic);
    EXPECT_EQ(schema.properties()[entries[2].first].schema, generic);
    EXPECT_FALSE(schema.lookupProperty(prop::port, 1));
    EXPECT_EQ(schema.subtypeProperty(prop::type), schema.lookupProperty(prop::type, 0));
    EXPECT_FALSE(schema.subtypeProperty(prop::user));
    EXPECT_DEATH(schema.addPropertySchemaSpecialization(prop::type, 1, 1, 2),
                 "Cannot specialize properties used to determine subtype");
    EXPECT_DEATH(schema.addPropertySchemaSpecialization(prop::name, 1, 1, 2),
                 "Internal error in addPropertySchemaSpecialization");
    EXPECT_DEATH(schema.addGroupChild(cls::Check, 9, 13), "No group with ID 9");
}

TEST(SchemaTable, SealClosesInheritanceAndDropsUnknownChildren) {
    SchemaTable table;
    auto parent = plain_class(3);
    parent->addChildClass(cls::ViewEntry, 4);
    parent->addChildClass(cls::Plan, 22);
    parent->addGroup(1, cls::CheckGroup);
    parent->addGroupChild(cls::Check, 1, 13);
    parent->addGroupChild(cls::NodeView, 1, 6);
    auto child = std::make_unique<NodetypeSchema>(4, cls::ViewEntry);
    child->addPropertySchema(number(prop::order, kPrimaryKey));
    child->addPropertySchema(make_property({.number = prop::parentId, .kind = kind_t::object}));
    table.registerSchema(std::move(parent));
    table.registerSchema(std::move(child));
    table.registerSchema(plain_class(6));
    table.seal();
    const NodetypeSchema& sealed = table.get(3);
    EXPECT_EQ(sealed.child_classes(),
              (std::map<uint32_t, uint32_t>{{cls::ViewEntry, 4}, {cls::NodeView, 6}}));
    EXPECT_EQ(sealed.direct_children(), std::set<uint32_t>{4});
    EXPECT_EQ(sealed.all_children(), (std::set<uint32_t>{4, 6}));
    EXPECT_EQ(sealed.group_of_child(6), 1);
    EXPECT_FALSE(sealed.group_of_child(13));
    for (const auto& entry : sealed.properties()) EXPECT_TRUE(entry.schema->has(kNoInheritance));
    EXPECT_EQ(table.reparentable_classes(), std::set<uint32_t>{cls::ViewEntry});
}

TEST(SchemaTable, InheritablePropertiesMustExistWhereTheyComeFrom) {
    constexpr uint32_t kTo[] = {cls::NodeClassCheckConfig};
    const auto build = [&](bool complete) {
        SchemaTable table;
        auto heir = plain_class(3);
        heir->addPropertySchema(make_property(
            {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kTo}));
        heir->addPropertySchema(number(prop::port));
        auto source = std::make_unique<NodetypeSchema>(61, cls::NodeClassCheckConfig);
        source->addPropertySchema(number(prop::name, kPrimaryKey));
        if (complete) source->addPropertySchema(number(prop::port));
        table.registerSchema(std::move(heir));
        table.registerSchema(std::move(source));
        table.seal();
    };
    EXPECT_NO_THROW(build(true));
    try {
        build(false);
        ADD_FAILURE() << "a missing property passed";
    } catch (const error::EFatal& failure) {
        EXPECT_EQ(failure.text(),
                  "The class View has inheritable property port which is not present in class "
                  "NodeClassCheckConfig");
    }
}

}  // namespace
}  // namespace dbcache
