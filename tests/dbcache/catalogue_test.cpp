// A walk over all classes that the server knows: each is sound by its own rules. What they are
// meant to be is held against them in catalogue_listing_test.cpp.
#include <gtest/gtest.h>

#include "dbcache/schema/declare_all.h"
#include "dbcache/schema_table.h"
#include "fake_tree.h"
#include "tql/property_kinds.h"

namespace dbcache {
namespace {

const NodeId kRoot{0, 1};
const NodeId kNew{1, 500};

class Catalogue : public testing::Test {
  protected:
    Catalogue() { schema::declare_all(table); }

    template <class Visit>
    void each_entry(Visit&& visit) {
        for (uint32_t number = 0; number < nodetype::kCount; ++number) {
            const NodetypeSchema* schema = table.find(number);
            if (schema == nullptr) continue;
            SCOPED_TRACE(schema->class_name());
            for (const auto& entry : schema->properties()) {
                SCOPED_TRACE(entry.schema->name());
                visit(*schema, *entry.schema);
            }
        }
    }

    SchemaTable table;
    test::FakeTree tree;
};

TEST_F(Catalogue, EveryStartValueIsValidStoredAndReadBack) {
    tree.add(kRoot, cls::Domain, {});
    each_entry([&](const NodetypeSchema& schema, const PropertySchema& property) {
        const test::FakeObject object(tree, kNew, kRoot, schema.tql_class);
        const test::FakeChain nothing(tree, kNew);
        work_t work;
        property.initial(work);
        if (work.is_null()) return;  // without a start value: given at creation, or null
        EXPECT_EQ(property.has(kPrimaryKey) ? "" : test::failure_of([&] {
                      property.validate(object, nothing, work);
                  }),
                  "");

        test::FakeTree stored;
        stored.add(kNew, schema.tql_class, kRoot);
        test::FakeSink sink(stored.objects[kNew].records);
        property.store(kNew, nothing, work, {}, sink);
        const test::FakeChain chain(stored, kNew);
        work_t again;
        property.load(chain, again);
        ASSERT_FALSE(again.is_null());
        EXPECT_EQ(property.compare(work, again), 0);

        if (!property.applies_now(chain)) return;  // states of checks, of which this has none
        tql::property_map_t encoded;
        property.encode(chain, kNew, encoded);
        ASSERT_EQ(encoded.size(), 1U);
        const tql::property_t& value = *encoded.begin()->second;
        EXPECT_TRUE(value.identical(*property.to_tql(work, chain)));
        EXPECT_EQ(value.flags, property.flags);
        EXPECT_FALSE(value.is_null);
    });
}

TEST_F(Catalogue, ValuesOfAnotherKindAreRefused) {
    each_entry([&](const NodetypeSchema& schema, const PropertySchema& property) {
        if (property.has(kComputed) || property.kind == "action") return;
        const test::FakeObject object(tree, kNew, kRoot, schema.tql_class);
        work_t work;
        const tql::property_gid_list_t strange(property.property, {1});
        EXPECT_EQ(test::failure_of(
                      [&] { property.assign(strange, object, test::FakeChain(tree, kNew), work); }),
                  "9: Type mismatch for property " + property.name());
    });
}

TEST_F(Catalogue, EveryPropertyAndChildHasAName) {
    each_entry([&](const NodetypeSchema& schema, const PropertySchema& property) {
        EXPECT_NE(tql::find_property_row(property.property), nullptr);
        EXPECT_FALSE(property.kind.empty());
        EXPECT_FALSE(tql::find_class_name(schema.tql_class).empty());
        for (const auto& [child_class, child] : schema.child_classes()) {
            ASSERT_NE(table.find(child), nullptr);
            EXPECT_EQ(table.find(child)->tql_class, child_class);
        }
    });
}

// What people write for a property is read as the kind that its class has.
TEST_F(Catalogue, KindsAreThoseThatTextsAreReadAs) {
    std::set<std::pair<uint32_t, uint32_t>> seen;
    each_entry([&](const NodetypeSchema& schema, const PropertySchema& property) {
        seen.emplace(schema.tql_class, property.property);
        const tql::value_kind_t told = tql::property_kind(schema.tql_class, property.property);
        tql::value_kind_t kind{};
        if (property.kind == "action") {
            kind.type = tql::property_type_t::action;
        } else {
            kind = tql::kind_of(*property.to_tql({}, test::FakeChain(tree, kNew)));
            kind.is_unit = property.kind.starts_with("unit");
        }
        EXPECT_EQ(tql::kind_word(told), tql::kind_word(kind));
        EXPECT_EQ(told.enumeration, kind.enumeration);
    });
    for (const tql::property_row_t& row : tql::property_rows())
        for (const tql::class_kind_row_t& other : tql::class_kinds(row.number)) {
            SCOPED_TRACE(tql::class_name(other.class_number) + "." + std::string(row.name));
            EXPECT_FALSE(other.kind == row.usual_kind);
            bool is_stored = false;  // computed classes are in no table
            for (uint32_t number = 0; number < nodetype::kCount; ++number)
                is_stored |= tql::find_nodetype_class(number) == other.class_number;
            EXPECT_EQ(seen.contains({other.class_number, row.number}), is_stored);
        }
}

TEST_F(Catalogue, LabelsOfDomainsNodesAndGroups) {
    tree.add(kNew, cls::Node, kRoot);
    tree.put(kNew, mdb::PropertyString(prop::name, "web1"));
    const test::FakeObject object(tree, kNew);
    const test::FakeChain chain(tree, kNew);
    tql::pattern_t all(cls::Any, tql::kPatternAllProperties);
    const auto text = [](const tql::property_map_t& map, uint32_t number) {
        return map.at(number)->print();
    };
    const NodetypeSchema& node = table.get(nodetype::Node);
    tql::property_map_t labels;
    node.encodeSpecials(object, chain, all, labels);
    EXPECT_EQ(text(labels, prop::treeLabel), "\"web1\"");
    EXPECT_EQ(node.siblingName(chain), "web1");
    tree.put(kNew, mdb::PropertyString(prop::label, "Front"));
    node.encodeSpecials(object, chain, all, labels);
    EXPECT_EQ(text(labels, prop::siblingName), "\"web1\"");
    EXPECT_EQ(text(labels, prop::longLabel), "\"Front (web1)\"");

    tql::property_map_t group;
    node.encodeGroupSpecials(chain, 2, all, group);
    EXPECT_EQ(text(group, prop::siblingName), "\"snmpchecks\"");
    EXPECT_EQ(text(group, prop::treeLabel), "\"snmpChecks\"");
    EXPECT_EQ(text(group, prop::longLabel), "\"snmpChecks on web1\"");
    EXPECT_DEATH(node.encodeGroupSpecials(chain, 4, all, group),
                 "NodeSchema::encodeGroupSpecials invoked with group_id=4");

    tql::property_map_t few;
    tql::pattern_t wants_tree_label(cls::Node);
    wants_tree_label.wanted_properties = {prop::treeLabel};
    node.encodeSpecials(object, chain, wants_tree_label, few);
    EXPECT_EQ(few.size(), 1U);
}

// A condition on such a name is tried on what the index of siblings holds.
TEST_F(Catalogue, StoredSiblingNamesAreThoseThatQueriesSee) {
    const NodeId parent{1, 400};
    tree.add(parent, cls::Domain, kRoot);
    tree.add(kNew, cls::Node, parent);
    for (const uint32_t number : {prop::name, prop::agentId, prop::tag}) {
        tree.put(kNew, mdb::PropertyString(number, fmt::format("own {}", number)));
        tree.put(parent, mdb::PropertyString(number, "above"));
    }
    tree.put(kNew, mdb::PropertyNodeId(prop::inherits, parent));
    const test::FakeObject object(tree, kNew);
    const test::FakeChain chain(tree, kNew);
    tql::pattern_t wants_name(cls::Any);
    wants_name.wanted_properties = {prop::siblingName};
    size_t classes = 0;
    for (uint32_t number = 0; number < nodetype::kCount; ++number) {
        const NodetypeSchema* schema = table.find(number);
        if (schema == nullptr || !schema->stores_sibling_name()) continue;
        SCOPED_TRACE(schema->class_name());
        const std::optional<std::string> name = schema->siblingName(chain);
        ASSERT_TRUE(name.has_value());
        EXPECT_EQ(name->substr(0, 4), "own ");
        tql::property_map_t seen;
        schema->encodeSpecials(object, chain, wants_name, seen);
        EXPECT_EQ(seen.at(prop::siblingName)->print(), "\"" + *name + "\"");
        ++classes;
    }
    EXPECT_GT(classes, 20U);
}

}  // namespace
}  // namespace dbcache
