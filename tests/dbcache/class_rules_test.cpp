// What a class checks as a whole: primary key, singletons and rules between two values; and the
// pattern language.
#include <gtest/gtest.h>

#include "dbcache/class_table.h"
#include "dbcache/pattern_language.h"
#include "dbcache/schema/tree_schemas.h"
#include "fake_tree.h"

namespace dbcache {
namespace {

using test::failure_of;
using test::FakeChain;
using test::FakeObject;

const NodeId kRoot{0, 1};
const NodeId kNew{1, 99};

constexpr PropertyRow kRows[] = {
    {.number = prop::tag, .kind = kind_t::icase_string, .flags = K | N},
    {.number = prop::order, .kind = kind_t::u32, .flags = K},
    {.number = prop::plotMin, .kind = kind_t::real, .flags = N},
    {.number = prop::plotMax, .kind = kind_t::real, .flags = N},
};
constexpr GreaterRow kGreater[] = {
    {prop::plotMax, prop::plotMin, kAllSubtypes, "Plot max must be greater than min value"}};

class ClassRules : public testing::Test {
  protected:
    ClassRules() {
        tree.add(kRoot, cls::Domain, {});
        schema.addKeyClass(schema.tql_class);
    }
    void add_sibling(const NodeId& id, const char* tag, uint32_t order) {
        tree.add(id, cls::View, kRoot);
        tree.put(id, mdb::PropertyString(prop::tag, tag));
        tree.put(id, mdb::PropertyUint32(prop::order, order));
    }
    work_t& slot(WorkArray& work, uint32_t number) { return work[schema.findProperty(number, 0)]; }
    WorkArray values(const char* tag, uint32_t order, double low = 0, double high = 1) {
        WorkArray work(schema.properties().size());
        if (tag != nullptr)
            slot(work, prop::tag).prop = std::make_unique<mdb::PropertyString>(prop::tag, tag);
        slot(work, prop::order).prop = std::make_unique<mdb::PropertyUint32>(prop::order, order);
        slot(work, prop::plotMin).prop = std::make_unique<mdb::PropertyDouble>(prop::plotMin, low);
        slot(work, prop::plotMax).prop = std::make_unique<mdb::PropertyDouble>(prop::plotMax, high);
        return work;
    }
    std::string validate(WorkArray work, const NodeId& parent = kRoot) {
        const FakeObject object(tree, kNew, parent, cls::View);
        return failure_of([&] { schema.validate(object, FakeChain(tree, kNew), work, NodeId{}); });
    }

    test::FakeTree tree;
    TableSchema<NodetypeSchema> schema{{.nodetype = nodetype::View,
                                        .tql_class = cls::View,
                                        .properties = kRows,
                                        .greater = kGreater}};
};

TEST_F(ClassRules, KeysDifferInOneOfTheirPropertiesAtLeast) {
    add_sibling({1, 1}, "a", 1);
    add_sibling({1, 2}, "B", 2);
    EXPECT_EQ(validate(values("a", 2)), "");
    EXPECT_EQ(validate(values("b", 2)), "4: EXISTS{1.2} Duplicate value given for primary key");
    EXPECT_EQ(validate(values(nullptr, 2)), "");  // a null part is never a duplicate
    EXPECT_EQ(validate(values("b", 2), NodeId{}), "");
    tree.put_null({1, 2}, mdb::PropertyString(prop::tag));
    EXPECT_EQ(validate(values("b", 2)), "");
    tree.objects[{1, 1}].class_number = cls::ReportText;
    EXPECT_EQ(validate(values("a", 1)), "");
    schema.addKeyClass(cls::ReportText);
    EXPECT_EQ(validate(values("a", 1)), "4: EXISTS{1.1} Duplicate value given for primary key");
}

TEST_F(ClassRules, RulesTieTwoValues) {
    EXPECT_EQ(validate(values("a", 1, 2, 3)), "");
    EXPECT_EQ(validate(values("a", 1, 3, 3)), "10: Plot max must be greater than min value");
    EXPECT_EQ(validate(values("a", 1, 4, 3)), "10: Plot max must be greater than min value");
    WorkArray open = values("a", 1, 4, 3);
    slot(open, prop::plotMin).prop.reset();
    EXPECT_EQ(validate(std::move(open)), "");
    EXPECT_EQ(validate(values(nullptr, 1, 4, 3)), "");  // only with a complete key
    schema.addRestriction(prop::order, prop::port, kAllSubtypes, {}, "");
    EXPECT_EQ(validate(values("a", 1, 2, 3)),
              "10: Object 1.99 couldn't lookup mutual restrictions on properties: order and port "
              "where restriction subtype is 4294967295 idx1 3 idx2 -1");
}

TEST_F(ClassRules, RulesHoldForTheirSubtype) {
    /// The subtype is the order.
    class Typed final : public TableSchema<NodetypeSchema> {
      public:
        using TableSchema::TableSchema;
        [[nodiscard]] uint32_t subtypeFromWork(const WorkArray& work) const override {
            const auto& order = work[findProperty(prop::order, kAllSubtypes)].prop;
            return static_cast<const mdb::PropertyUint32&>(*order).value;
        }
    };
    static constexpr GreaterRow second[] = {{prop::plotMax, prop::plotMin, 2, "not so"}};
    Typed typed({.nodetype = nodetype::View,
                 .tql_class = cls::View,
                 .properties = kRows,
                 .greater = second});
    const FakeObject object(tree, kNew, kRoot, cls::View);
    const auto check = [&](uint32_t subtype) {
        WorkArray work = values("a", subtype, 3, 2);
        return failure_of([&] { typed.validate(object, FakeChain(tree, kNew), work, NodeId{}); });
    };
    EXPECT_EQ(check(1), "");
    EXPECT_EQ(check(2), "10: not so");
}

TEST_F(ClassRules, OneSingletonUnderAParent) {
    const SingletonSchema singleton(nodetype::GridConfig, cls::GridConfig);
    const DomainSchema domain;
    tree.add({1, 1}, cls::MountPoint, kRoot);
    const auto make = [&](const NodetypeSchema& one, const NodeId& parent) {
        const FakeObject object(tree, kNew, parent, one.tql_class);
        WorkArray work(one.properties().size());
        return failure_of([&] { one.validate(object, FakeChain(tree, kNew), work, {}); });
    };
    // Key classes are completed by the table.
    const_cast<SingletonSchema&>(singleton).addKeyClass(cls::GridConfig);
    const_cast<DomainSchema&>(domain).addKeyClass(cls::Domain);
    EXPECT_EQ(make(singleton, kRoot), "");
    tree.add({1, 2}, cls::GridConfig, kRoot);
    EXPECT_EQ(make(singleton, kRoot), "4: EXISTS{1.2} Duplicate value given for primary key");
    tree.add({1, 3}, cls::Domain, {1, 1});
    tree.add({1, 4}, cls::Domain, kRoot);
    EXPECT_EQ(make(domain, kRoot), "");
    EXPECT_EQ(make(domain, {1, 1}), "4: EXISTS{1.3} Duplicate value given for primary key");
}

TEST_F(ClassRules, OriginsComeFromTheParent) {
    const FakeObject object(tree, kNew, kRoot, cls::View);
    EXPECT_EQ(schema.tqlOrigin(object).type, 77U);
    EXPECT_EQ(NodeSchema().tqlOrigin(object).type, 1U);
    EXPECT_EQ(NodeSchema().tqlOrigin(object).domain_id, tql::id_t(0, 1));
    const FakeObject root(tree, kRoot);
    EXPECT_DEATH(static_cast<void>(schema.tqlOrigin(root)),
                 "Object 0.1 has no parent in NodetypeSchema::tqlOrigin");
}

TEST(PatternLanguage, TellsTheFirstFault) {
    const std::pair<std::string, std::string> cases[] = {
        {"'a'", ""},
        {" 'a' or 'b'and not'c' ", ""},
        {"not not ('a' or ('b'))", ""},
        {"''", ""},
        {"'a'\n\tand\x01'b'", ""},
        {"", ": Empty pattern"},
        {" \t", ": Empty pattern"},
        {"'a", ": Unbalanced quotes"},
        {"'a' 'b'", ": Extra input"},
        {"'a')", ": Extra input"},
        {"no 'a'", ": Expected 'not'"},
        {"'a' an 'b'", ": Expected 'and'"},
        {"'a' o 'b'", ": Expected 'or'"},
        {"('a'", ": Unbalanced parentheses"},
        {"('a' 'b')", ": Unbalanced parentheses"},
        {"'a' or", ": Expected condition"},
        {"()", ": Expected condition"},
        {"x", ": Expected condition"},
        {std::string(100, '(') + "'a'" + std::string(100, ')'), ""},
        {std::string(1000000, '('), ": Pattern nested too deeply"},
    };
    for (const auto& [text, fault] : cases)
        EXPECT_EQ(check_pattern(text), fault) << text.substr(0, 40);
}

}  // namespace
}  // namespace dbcache
