// Each kind of property: what it takes from a client, what it refuses and with which words, how it
// is stored and read, and the rules of nulls, defaults and inheritance that all kinds share.
#include "dbcache/property_kinds.h"

#include "dbcache/class_table.h"
#include "dbcache/special_kinds.h"
#include "kinds_bench.h"

namespace dbcache {
namespace {

using namespace test;

class Kinds : public KindsBench {};

TEST_F(Kinds, ValuesComeBackAsTheyWentIn) {
    struct Case {
        PropertyRow row;
        tql::value_t value;
        std::string printed;
    };
    const auto value = [](auto kind) { return tql::value_t(kind.clone()); };
    const uint32_t p = prop::name;
    const Case cases[] = {
        {{.number = p, .kind = kind_t::u32},
         value(tql::property_uint_t(p, 4294967295)),
         "4294967295"},
        {{.number = p, .kind = kind_t::i32}, value(tql::property_int_t(p, -5)), "-5"},
        {{.number = p, .kind = kind_t::real}, value(tql::property_real_t(p, -0.25)), "-0.25"},
        {{.number = p, .kind = kind_t::boolean}, value(tql::property_boolean_t(p, true)), "true"},
        {{.number = p, .kind = kind_t::date},
         value(tql::property_date_t(p, 4000000000)),
         "4000000000"},
        {{.number = p, .kind = kind_t::gid},
         value(tql::property_gid_t(p, 0x01020304)),
         "01:02:03:04"},
        {{.number = p, .kind = kind_t::version},
         value(tql::property_version_t(p, {7, 1ULL << 40})),
         "\"7.1.1099511627776\""},
        {{.number = p, .kind = kind_t::big_number},
         value(tql::property_bignum_t(p, BigNum(123456789))),
         "123456789"},
        {{.number = p, .kind = kind_t::ipv4},
         value(tql::property_string_t(p, "10.0.255.1")),
         "\"10.0.255.1\""},
        {{.number = p, .kind = kind_t::oid},
         value(tql::property_oid_t(p, {1, 3, 6})),
         "00:00:00:01, 00:00:00:03, 00:00:00:06"},
        {{.number = p, .kind = kind_t::blob}, value(tql::property_blob_t(p, {0, 255})), "BLOB"},
        {{.number = p, .kind = kind_t::string},
         value(tql::property_string_t(p, "\xc3\xa6 \"x\"")),
         "\"\xc3\xa6 \"x\"\""},
        {{.number = p, .kind = kind_t::string_list},
         value(tql::property_string_list_t(p, {"", "1234567", "12345678"})),
         "\"\", \"1234567\", \"12345678\""},
        {{.number = p, .kind = kind_t::object},
         value(tql::property_object_t(p, {3, 4})),
         "\"3.4\""},
        {{.number = p, .kind = kind_t::object_set},
         value(tql::property_object_set_t(p, {{1, 2}, {1, 1}})),
         "{\"1.1\", \"1.2\"}"},
        {{.number = p, .kind = kind_t::user}, value(tql::property_object_t(p, {})), "\"\""},
        {{.number = p, .kind = kind_t::enumeration, .enumeration = 0x10002},
         value(tql::property_enum_t(p, 0x10002, 9, 0)),
         "enum(65538, 9)"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(kind_text(one.row.kind));
        const auto schema = make_property(one.row);
        work_t work;
        ASSERT_EQ(take(*schema, *one.value, work), "");
        store(*schema, work);
        EXPECT_TRUE(read(*schema)->identical(*one.value));
        EXPECT_EQ(read(*schema)->print(), one.printed);
        work_t loaded;
        schema->load(chain, loaded);
        EXPECT_EQ(schema->compare(work, loaded), 0);
        EXPECT_TRUE(schema->to_tql(loaded, chain)->identical(*one.value));
    }
}

TEST_F(Kinds, RefusesNumbersBeyondTheirLimits) {
    const auto frequency = make_property(
        {.number = prop::frequency, .kind = kind_t::u32, .initial = 30, .low = 1, .high = 86400});
    const auto score =
        make_property({.number = prop::goodScore, .kind = kind_t::i32, .initial = -5, .high = 0});
    const auto date = make_property({.number = prop::date, .kind = kind_t::date});
    const auto above = make_property({.number = prop::warnIfAbove, .kind = kind_t::real_int});
    const auto uint = [](uint32_t n) { return tql::property_uint_t(prop::frequency, n); };
    EXPECT_EQ(take(*frequency, uint(0)), "10: Value for frequency too low");
    EXPECT_EQ(take(*frequency, uint(1)), "");
    EXPECT_EQ(take(*frequency, uint(86400)), "");
    EXPECT_EQ(take(*frequency, uint(86401)), "10: Value for frequency too high");
    EXPECT_EQ(take(*score, tql::property_int_t(prop::goodScore, 1)),
              "10: Value for goodScore too high");
    EXPECT_EQ(take(*score, tql::property_int_t(prop::goodScore, -2147483647)), "");
    EXPECT_EQ(take(*date, tql::property_date_t(prop::date, -1)), "10: Value for date too low");
    EXPECT_EQ(take(*date, tql::property_date_t(prop::date, 4294967296)),
              "10: Value for date too high");
    EXPECT_EQ(take(*above, tql::property_real_t(prop::warnIfAbove, 4294967296.0)),
              "10: Value for warnIfAbove too high");
    EXPECT_EQ(frequency->describe(), "default 30 1..86400");
}

TEST_F(Kinds, RefusesTextsWithTheirOwnWords) {
    struct Case {
        PropertyRow row;
        std::string text;
        std::string failure;
    };
    const uint32_t p = prop::name;
    const PropertyRow bounded{.number = p, .kind = kind_t::bounded_string, .low = 2, .high = 4};
    const PropertyRow filled{.number = p, .kind = kind_t::non_empty_string};
    const PropertyRow marl{.number = p, .kind = kind_t::marl, .high = 10};
    const PropertyRow identifier{.number = p, .kind = kind_t::identifier};
    const PropertyRow domain{.number = p, .kind = kind_t::domain_identifier};
    const PropertyRow regex{.number = p, .kind = kind_t::regex};
    const PropertyRow pattern{.number = p, .kind = kind_t::pattern};
    const PropertyRow ipv4{.number = p, .kind = kind_t::ipv4};
    const std::string letters =
        "10: Property name may only contain letters (a-z), digits, space, _ and -";
    const Case cases[] = {
        {bounded, "x", "10: Value of property name too short"},
        {bounded, "xx", ""},
        {bounded, "xxxx", ""},
        {bounded, "xxxxx", "10: Value of property name too long"},
        {filled, "", "10: Value of property name too short"},
        {marl, "<b>a</b>", ""},
        {marl, "", ""},
        {marl, "<b>a</i>", "10: [51]: Mismatched tags"},
        {marl, "a&b", "10: [51]: & (ampersand) not allowed"},
        {marl, "<b>aaaaaaaaa</i>", "10: Value of property name too long"},
        {identifier, "", "10: Property name must not be empty"},
        {identifier, "Web-1 _x", ""},
        {identifier, "a.b", letters},
        {identifier, "\xc3\xa6", letters},
        {domain, "", "10: Property name must not be empty"},
        {domain, "\xc3\xa6 /", ""},
        {domain, "a.b", "10: Property name may not contain the character . (period)"},
        {regex, "", ""},
        {regex, "^2..$", ""},
        {pattern, "'a'", ""},
        {pattern, " ", "10: Property name: Empty pattern"},
        {ipv4, "1.2.3", "10: Property name: Malformed IP address: \"1.2.3\""},
        {ipv4, "1.2.3.256", "10: Property name: Malformed IP address: \"1.2.3.256\""},
        {ipv4, "1..3.4", "10: Property name: Malformed IP address: \"1..3.4\""},
        {{.number = p, .kind = kind_t::string},
         std::string("a\0b", 3),
         "10: Property name may not contain a NUL"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(testing::Message() << kind_text(one.row.kind) << " " << one.text);
        EXPECT_EQ(take(*make_property(one.row), tql::property_string_t(p, one.text)), one.failure);
    }
    EXPECT_EQ(take(*make_property(regex), tql::property_string_t(p, "(")).substr(0, 19),
              "10: Property name: ");
    EXPECT_EQ(take(*make_property({.number = p, .kind = kind_t::png}),
                   tql::property_blob_t(p, {0x89, 'P'})),
              "10: Property name: Not a valid png image");
    EXPECT_EQ(take(*make_property({.number = p, .kind = kind_t::png}),
                   tql::property_blob_t(p, {0x89, 'P', 'N', 'G', 13, 10, 26, 10})),
              "");
}

TEST_F(Kinds, TextsAreToldApartAsTheirKindSays) {
    const auto compare = [](kind_t kind, const char* a, const char* b) {
        const auto schema = make_property({.number = prop::name, .kind = kind});
        work_t left, right;
        left.prop = std::make_unique<mdb::PropertyString>(prop::name, a);
        right.prop = std::make_unique<mdb::PropertyString>(prop::name, b);
        return schema->compare(left, right);
    };
    EXPECT_EQ(compare(kind_t::string, "a", "A"), 1);
    EXPECT_EQ(compare(kind_t::icase_string, "ab", "AB"), 0);
    EXPECT_EQ(compare(kind_t::identifier, "ab", "AB"), 0);
    EXPECT_EQ(compare(kind_t::icase_string, "a", "B"), -1);
    const auto schema = make_property({.number = prop::name, .kind = kind_t::string});
    work_t null, empty;
    empty.prop = std::make_unique<mdb::PropertyString>(prop::name, "");
    EXPECT_EQ(schema->compare(null, empty), -1);
    EXPECT_EQ(schema->compare(empty, null), 1);
    EXPECT_EQ(schema->compare(null, null), 0);
}

TEST_F(Kinds, NullsAndStartValues) {
    struct Case {
        PropertyRow row;
        std::string start;  // of a new object; "null" for none
        std::string failure;
    };
    const uint32_t p = prop::name;
    const Case cases[] = {
        {{.number = p, .kind = kind_t::string}, "\"\"", ""},
        {{.number = p, .kind = kind_t::string, .initial = "sdk"}, "\"sdk\"", ""},
        {{.number = p, .kind = kind_t::string, .flags = N}, "null", ""},
        {{.number = p, .kind = kind_t::object_set}, "{}", ""},
        {{.number = p, .kind = kind_t::boolean}, "false", ""},
        {{.number = p, .kind = kind_t::count}, "0", ""},
        {{.number = p, .kind = kind_t::u32}, "null", "10: Null given for property name"},
        {{.number = p, .kind = kind_t::date}, "null", "10: Null given for property name"},
        {{.number = p, .kind = kind_t::object}, "null", "10: Null given for property name"},
        {{.number = p, .kind = kind_t::enumeration, .enumeration = 0x10002},
         "null",
         "10: Null given for property name"},
        {{.number = p, .kind = kind_t::u32, .flags = N, .initial = 30}, "30", ""},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(kind_text(one.row.kind));
        const auto schema = make_property(one.row);
        work_t work;
        schema->initial(work);
        EXPECT_EQ(work.is_null() ? "null" : schema->to_tql(work, chain)->print(), one.start);
        EXPECT_EQ(failure_of([&] { schema->validate(object, chain, work); }), one.failure);
    }
}

TEST_F(Kinds, ResolvesThroughOneInheritanceParent) {
    const auto plain = make_property({.number = prop::port, .kind = kind_t::u32, .flags = N});
    const auto with_default =
        make_property({.number = prop::port, .kind = kind_t::u32, .flags = N, .initial = 80});
    const auto own_only =
        make_property({.number = prop::port, .kind = kind_t::u32, .flags = N | X, .initial = 80});
    const mdb::PropertyUint32 parents(prop::port, 7);
    mdb::PropertyUint32 marked(prop::port, 8);
    marked.inherited = 1;

    EXPECT_EQ(shown(*plain), "null");
    EXPECT_EQ(shown(*with_default), "80");
    tree.objects[kSelf].inherits = kSource;
    EXPECT_EQ(shown(*plain), "inherited null");
    EXPECT_EQ(shown(*with_default), "inherited 80");
    EXPECT_EQ(shown(*own_only), "80");
    tree.put(kSource, parents);
    EXPECT_EQ(shown(*plain), "inherited 7");
    EXPECT_EQ(shown(*own_only), "80");
    tree.put_null(kSource, parents);
    EXPECT_EQ(shown(*with_default), "inherited null");
    tree.put(kSelf, marked);  // a copy stands until the object is written again
    EXPECT_EQ(shown(*plain), "inherited 8");
    EXPECT_EQ(shown(*own_only), "8");
    tree.put_null(kSelf, marked);
    EXPECT_EQ(shown(*with_default), "inherited null");
    tree.put_null(kSelf, parents);
    EXPECT_EQ(shown(*with_default), "null");
    tree.objects[kSelf].records.clear();
    tree.objects[kSelf].inherits = {9, 9};  // gone
    EXPECT_EQ(shown(*with_default), "80");
}

TEST_F(Kinds, ARequestToInheritFetchesTheParentsValue) {
    const auto port = make_property({.number = prop::port, .kind = kind_t::u32, .flags = N});
    const auto own_only =
        make_property({.number = prop::port, .kind = kind_t::u32, .flags = N | X});
    const auto required = make_property({.number = prop::port, .kind = kind_t::u32, .initial = 80});
    tql::property_uint_t request(prop::port, 1);
    request.flags = kStateInherited;
    EXPECT_EQ(take(*own_only, request), "10: Property port does not allow inheritance");
    EXPECT_EQ(take(*port, request), "10: afterUpdate cannot set property port to be inherited");

    tree.objects[kSelf].inherits = kSource;
    work_t work;
    ASSERT_EQ(take(*required, request, work), "");
    EXPECT_EQ(required->to_tql(work, chain)->print(), "80");
    tree.put(kSource, mdb::PropertyUint32(prop::port, 7));
    ASSERT_EQ(take(*port, request, work), "");
    EXPECT_EQ(port->to_tql(work, chain)->flags, kNullable | kInherited);
    store(*port, work);
    EXPECT_EQ(shown(*port), "inherited 7");
    // A real value overrides, and a null of one's own is kept apart from having no record.
    ASSERT_EQ(take(*port, tql::property_uint_t(prop::port, 5), work), "");
    store(*port, work);
    EXPECT_EQ(shown(*port), "5");
    ASSERT_EQ(take(*port, tql::property_uint_t::null(prop::port), work), "");
    store(*port, work);
    EXPECT_EQ(shown(*port), "null");
    // Without `inherits` a null needs a record only to override a default.
    tree.objects[kSelf].inherits = {};
    store(*port, work);
    EXPECT_FALSE(tree.objects[kSelf].records.contains(prop::port));
    store(*required, work);
    EXPECT_TRUE(tree.objects[kSelf].records.contains(prop::port));
}

TEST_F(Kinds, InheritedIdsAreTranslated) {
    const auto one = make_property({.number = prop::remedyId, .kind = kind_t::object, .flags = N});
    const auto set = make_property({.number = prop::dependsOn, .kind = kind_t::object_set});
    tree.objects[kSelf].inherits = kSource;
    tree.put(kSource, mdb::PropertyNodeId(prop::remedyId, {5, 5}));
    tree.put(kSource, mdb::PropertyNodeIdList(prop::dependsOn, {{5, 5}, {6, 6}}));
    object.translations[{5, 5}] = {7, 7};
    for (const auto& [schema, printed] :
         {std::pair{one, "\"7.7\""}, std::pair{set, "{\"6.6\", \"7.7\"}"}}) {
        work_t work;
        work.set_inherited(true);
        schema->validate(object, chain, work);
        EXPECT_EQ(schema->to_tql(work, chain)->print(), printed);
    }
    one->translate_inherited = false;
    work_t work;
    work.set_inherited(true);
    one->validate(object, chain, work);
    EXPECT_EQ(one->to_tql(work, chain)->print(), "\"5.5\"");
}

TEST_F(Kinds, ConstPropertiesKeepTheirValue) {
    const auto type = make_property({.number = prop::type, .kind = kind_t::u32, .flags = N | C});
    const auto value = [](uint32_t n) { return tql::property_uint_t(prop::type, n); };
    work_t work;
    const FakeObject fresh(tree, {1, 99}, kRoot, cls::Node);
    type->assign(value(3), fresh, chain, work);
    EXPECT_EQ(failure_of([&] { type->validate(fresh, FakeChain(tree, {1, 99}), work); }), "");
    store(*type, work);
    EXPECT_EQ(take(*type, value(3)), "");
    EXPECT_EQ(take(*type, value(4)), "8: Cannot update const property type: 0 vs. 0");
    EXPECT_EQ(take(*type, tql::property_uint_t::null(prop::type)),
              "8: Cannot update const property type: 0 vs. 0");
}

TEST_F(Kinds, ReferencesKeepToTheirClassesAndDomains) {
    constexpr uint32_t kAllowed[] = {cls::Node, cls::Domain};
    const NodeId exempt[] = {{0, 2}};
    const auto schema = make_property({.number = prop::alertGroup,
                                       .kind = kind_t::object,
                                       .flags = N,
                                       .classes = kAllowed,
                                       .own_domains_only = true,
                                       .exempt = exempt});
    const auto set =
        make_property({.number = prop::dependsOn, .kind = kind_t::object_set, .classes = kAllowed});
    tree.add({2, 1}, cls::Domain, kRoot);
    tree.add({2, 2}, cls::Node, {2, 1});
    tree.add({2, 3}, cls::View, kRoot);
    tree.add({2, 4}, cls::Node, {});
    tree.add({2, 5}, cls::Node, kRoot);
    const auto point_at = [&](const tql::id_t& id) {
        return take(*schema, tql::property_object_t(prop::alertGroup, id));
    };
    EXPECT_EQ(point_at({2, 5}), "");
    EXPECT_EQ(point_at({0, 1}), "");
    EXPECT_EQ(point_at({0, 2}), "");
    EXPECT_EQ(point_at({8, 8}), "");  // dangling
    EXPECT_EQ(point_at({}), "10: alertGroup given illegal value");
    EXPECT_EQ(point_at({2, 5, 1}), "10: alertGroup given illegal value");
    EXPECT_EQ(
        point_at({2, 3}),
        "10: alertGroup points at the wrong class (View given, should be one of Domain, Node)");
    EXPECT_EQ(point_at({2, 2}), "10: alertGroup points at object in illegal domain");
    EXPECT_EQ(point_at({2, 4}), "10: Could not find domain containing 2.4");
    EXPECT_EQ(
        take(*set, tql::property_object_set_t(prop::dependsOn, {{2, 5}, {2, 3}})),
        "10: dependsOn points at the wrong class (View given, should be one of Domain, Node)");
    EXPECT_EQ(take(*set, tql::property_object_set_t(prop::dependsOn, {{2, 5}, {2, 2}})), "");
}

/// "Own" domains are those above the object; a domain isn't above itself.
TEST_F(Kinds, ReferencesOfDomainsAndToUsers) {
    constexpr uint32_t kUsers[] = {cls::User};
    tree.add({2, 1}, cls::Domain, kRoot);
    tree.add({2, 2}, cls::Node, {2, 1});
    tree.add({2, 5}, cls::Node, kRoot);
    tree.add({2, 6}, cls::User, kRoot);
    const FakeObject domain(tree, {2, 1});
    const FakeObject below(tree, {2, 9}, {2, 1}, cls::Node);  // not stored yet
    const auto own = make_property(
        {.number = prop::alertGroup, .kind = kind_t::object_set, .own_domains_only = true});
    const auto refer = [&](const FakeObject& from, const tql::id_t& to) {
        work_t work;
        return failure_of([&] {
            own->assign(tql::property_object_set_t(prop::alertGroup, {{2, 5}, to}), from, chain,
                        work);
            own->validate(from, chain, work);
        });
    };
    const std::string illegal = "10: alertGroup points at object in illegal domain";
    EXPECT_EQ(refer(domain, {2, 5}), "");
    EXPECT_EQ(refer(domain, {2, 1}), illegal);
    EXPECT_EQ(refer(domain, {2, 2}), illegal);
    EXPECT_EQ(refer(below, {2, 1}), "");
    EXPECT_EQ(refer(below, {2, 2}), "");
    EXPECT_EQ(refer(object, {2, 2}), illegal);

    const auto user =
        make_property({.number = prop::owner, .kind = kind_t::user, .classes = kUsers});
    const auto owner = [&](const tql::id_t& id) {
        return take(*user, tql::property_object_t(prop::owner, id));
    };
    EXPECT_EQ(owner({}), "");  // the built-in user
    EXPECT_EQ(owner({2, 6}), "");
    EXPECT_EQ(owner({2, 5}),
              "10: owner points at the wrong class (Node given, should be one of User)");
}

TEST_F(Kinds, EdgesMakeNoCycle) {
    const auto schema = make_property({.number = prop::inheritsFrom, .kind = kind_t::acyclic_set});
    const auto edges = [&](const NodeId& from, std::vector<NodeId> to) {
        tree.put(from, mdb::PropertyNodeIdList(prop::inheritsFrom, std::move(to)));
    };
    for (uint32_t n = 1; n <= 4; ++n) tree.add({3, n}, cls::NodeClass, kRoot);
    edges({3, 1}, {{3, 2}, {3, 3}});
    edges({3, 2}, {{3, 4}, {9, 9}});
    edges({3, 3}, {{3, 4}});
    edges({3, 4}, {{3, 2}});  // a cycle that is not ours doesn't hang the walk
    const std::string cycle = "10: Inheritance cycle through property inheritsFrom";
    const auto to = [&](tql::id_t id) {
        return take(*schema, tql::property_object_set_t(prop::inheritsFrom, {id}));
    };
    EXPECT_EQ(to({kSelf.first, kSelf.second}), cycle);
    EXPECT_EQ(to({3, 1}), "");
    edges({3, 3}, {kSelf});
    EXPECT_EQ(to({3, 1}), cycle);
    EXPECT_EQ(to({3, 4}), "");
}

TEST_F(Kinds, SiblingsKeepUniqueValues) {
    const auto schema = make_property(
        {.number = prop::label, .kind = kind_t::icase_string, .unique_among_siblings = true});
    tree.add({4, 1}, cls::Node, kRoot);
    tree.put({4, 1}, mdb::PropertyString(prop::label, "Web"));
    tree.add({4, 2}, cls::View, kRoot);
    tree.put({4, 2}, mdb::PropertyString(prop::label, "other class"));
    const auto label = [&](const char* text) {
        return take(*schema, tql::property_string_t(prop::label, text));
    };
    EXPECT_EQ(label("WEB"), "4: EXISTS{4.1} Duplicate value given for property label");
    EXPECT_EQ(label("other class"), "");
    EXPECT_EQ(label("web2"), "");
}

}  // namespace
}  // namespace dbcache
