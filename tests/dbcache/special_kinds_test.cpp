// The kinds that are more than a value with a check: conversions of older forms, units, marks,
// actions, images and large objects.
#include "dbcache/special_kinds.h"

#include "dbcache/class_table.h"
#include "kinds_bench.h"

namespace dbcache {
namespace {

using namespace test;

class SpecialKindsTest : public KindsBench {};

TEST_F(SpecialKindsTest, EachByItsRules) {
    const auto password = make_property({.number = prop::password, .kind = kind_t::password});
    work_t work;
    ASSERT_EQ(take(*password, tql::property_string_t(prop::password, "s"), work), "");
    ASSERT_EQ(take(*password, tql::property_string_t::null(prop::password), work), "");
    EXPECT_EQ(password->to_tql(work, chain)->print(), "\"s\"");

    const auto action =
        make_property({.number = prop::resetScore, .kind = kind_t::action, .flags = X});
    work_t requested;
    ASSERT_EQ(take(*action, tql::property_string_t::null(prop::resetScore), requested), "");
    EXPECT_EQ(requested.flags & kStateRequested, kStateRequested);
    EXPECT_EQ(shown(*action), "null");
    store(*action, requested);
    EXPECT_TRUE(tree.objects[kSelf].records.empty());

    const auto user = make_property({.number = prop::owner, .kind = kind_t::last_user});
    work_t last;
    ASSERT_EQ(take(*user, tql::property_object_t(prop::owner, {5, 5}), last), "");
    EXPECT_EQ(user->to_tql(last, chain)->print(), "\"5.5\"");
    object.user = {6, 6};
    ASSERT_EQ(take(*user, tql::property_object_t(prop::owner, {5, 5}), last), "");
    EXPECT_EQ(user->to_tql(last, chain)->print(), "\"6.6\"");

    const tql::property_uint_t five(prop::countNodes, 5);
    EXPECT_EQ(take(*make_property({.number = prop::countNodes, .kind = kind_t::count}), five),
              "8: Cannot update computed property countNodes");
    EXPECT_EQ(take(*make_property({.number = prop::tsdbIndex, .kind = kind_t::series}), five),
              "8: Attempted update of TSDB index");
    EXPECT_EQ(take(*make_property({.number = prop::activeMark, .kind = kind_t::mark}), five),
              "8: Cannot update computed property activeMark");
    EXPECT_EQ(take(*make_property(
                       {.number = prop::type, .kind = kind_t::enumeration, .enumeration = 0x10004}),
                   tql::property_enum_t(prop::type, 0x10002, 1, 0)),
              "9: Type mismatch for property_t: type [exp:65540,actual:65538]");
}

TEST_F(SpecialKindsTest, AMarkIsCarriedAlongAndAWhiteObjectHasNone) {
    const auto mark = make_property({.number = prop::activeMark, .kind = kind_t::mark});
    work_t work;
    mark->initial(work);
    EXPECT_EQ(failure_of([&] { mark->validate(object, chain, work); }), "");
    EXPECT_EQ(shown(*mark), "null");
    tree.put(kSelf, mdb::PropertyMarkIndex(prop::activeMark, {kRoot, {}, kSelf, true}));
    mark->load(chain, work);
    store(*mark, work);
    mdb::PropertyMarkIndex again(prop::activeMark);
    ASSERT_EQ(chain.read(0, again), found_t::value);
    EXPECT_EQ(again.value.prev, kRoot);
    EXPECT_EQ(again.value.last, kSelf);
    EXPECT_EQ(shown(*mark), "1");
}

TEST_F(SpecialKindsTest, CompanionAndConversionReadMoreThanOneRecord) {
    const auto number = make_property({.number = prop::port,
                                       .kind = kind_t::u32_with_active,
                                       .flags = N,
                                       .companion = prop::active});
    tree.put(kSelf, mdb::PropertyUint32(prop::port, 7));
    EXPECT_EQ(shown(*number), "null");
    tree.put(kSelf, mdb::PropertyBool(prop::active, false));
    EXPECT_EQ(shown(*number), "null");
    tree.put(kSelf, mdb::PropertyBool(prop::active, true));
    EXPECT_EQ(shown(*number), "7");

    const auto real =
        make_property({.number = prop::plotMax, .kind = kind_t::real_int, .flags = N});
    EXPECT_EQ(shown(*real), "null");
    tree.put(kSelf, mdb::PropertyUint32(prop::plotMax, 500));
    EXPECT_EQ(shown(*real), "500");
    work_t work;
    real->load(chain, work);
    store(*real, work);
    mdb::PropertyDouble converted(prop::plotMax);
    ASSERT_EQ(chain.read(0, converted), found_t::value);
    EXPECT_EQ(converted.value, 500.0);
    EXPECT_EQ(shown(*real), "500");
    EXPECT_EQ(string_to_oid_conversion_t::parse(".1.3.6"), (std::vector<uint32_t>{1, 3, 6}));
    EXPECT_THROW(string_to_oid_conversion_t::parse("1..3"), error::EParseError);
    EXPECT_THROW(string_to_oid_conversion_t::parse("1.x"), error::EParseError);
}

TEST_F(SpecialKindsTest, UnitsAreGivenAsBytesOrAsText) {
    using Blob = std::vector<uint8_t>;
    const Blob rate{0x51, 1, 0x11, 1, 0x11, 9, 0x01, 9, 0x21, 1, 0x21, 2};  // kB/s
    const Blob newer{0x51, 2, 0xFF};
    const uint32_t p = prop::preferredUnit;
    const auto blob = [](const Blob& bytes) {
        return tql::value_t(std::make_unique<tql::property_blob_t>(prop::preferredUnit, bytes));
    };
    const auto text = [](const char* value) {
        return tql::value_t(std::make_unique<tql::property_string_t>(prop::preferredUnit, value));
    };
    const struct {
        tql::value_t value;
        std::string failure;
        Blob stored;
    } cases[] = {
        {blob(rate), "", rate},
        {blob(newer), "", newer},
        {blob({}), "", {}},
        {blob({0x51, 1, 0x11}),
         "10: Property preferredUnit: Not a valid unit: entryFromBlob met eod",
         {}},
        {blob({0x51, 1, 0x11, 1, 0x11, 1}),
         "10: Property preferredUnit: Not a valid unit: Error parsing blob, extra input",
         {}},
        {text("kB/s"), "", rate},
        {text(""), "", {0x51, 1}},
        {tql::value_t(std::make_unique<tql::property_uint_t>(p, 1)),
         "9: Type mismatch for property preferredUnit",
         {}},
    };
    const auto schema = make_property({.number = p, .kind = kind_t::unit, .flags = N});
    for (const auto& one : cases) {
        work_t work;
        EXPECT_EQ(take(*schema, *one.value, work), one.failure);
        if (!one.failure.empty()) continue;
        store(*schema, work);
        EXPECT_EQ(static_cast<const tql::property_blob_t&>(*read(*schema)).value, one.stored);
    }
    work_t work;
    ASSERT_EQ(take(*schema, tql::property_string_t::null(p), work), "");
    EXPECT_TRUE(work.is_null());
    // Bytes that were stored before they were checked don't stand in the way of other changes.
    tree.put(kSelf, mdb::PropertyBlob(p, Blob{0x11}));
    schema->load(chain, work);
    EXPECT_EQ(failure_of([&] { schema->validate(object, chain, work); }), "");
    tree.objects[kSelf].inherits = kSource;
    tree.put(kSource, mdb::PropertyBlob(p, rate));
    tql::property_string_t request(p, "ignored");
    request.flags = kStateInherited;
    ASSERT_EQ(take(*schema, request, work), "");
    store(*schema, work);
    EXPECT_EQ(static_cast<const tql::property_blob_t&>(*read(*schema)).value, rate);
    EXPECT_EQ(shown(*schema).substr(0, 10), "inherited ");
}

TEST_F(SpecialKindsTest, TextOfOlderObjectsReadsInItsNewForm) {
    const auto unit =
        make_property({.number = prop::unit, .kind = kind_t::unit_from_text, .flags = N | X});
    const auto oid = make_property(
        {.number = prop::containingTable, .kind = kind_t::oid_from_text, .flags = N | X});
    EXPECT_EQ(shown(*unit), "null");
    tree.put(kSelf, mdb::PropertyString(prop::unit, "rpm"));
    tree.put(kSelf, mdb::PropertyString(prop::containingTable, "1.3.6"));
    const std::vector<uint8_t> rpm{0x51, 1, 0x11, 21};
    for (const bool written_again : {false, true}) {
        EXPECT_EQ(static_cast<const tql::property_blob_t&>(*read(*unit)).value, rpm);
        EXPECT_EQ(shown(*oid), "00:00:00:01, 00:00:00:03, 00:00:00:06");
        if (written_again) break;
        for (const auto& schema : {unit, oid}) {
            work_t work;
            schema->load(chain, work);
            store(*schema, work);
        }
    }
    mdb::PropertyBlob blob(prop::unit);
    mdb::PropertySnmpOid numbers(prop::containingTable);
    EXPECT_EQ(chain.read(0, blob), found_t::value);
    EXPECT_EQ(chain.read(0, numbers), found_t::value);
    // What isn't one is damage, and stays for who can mend it.
    tree.put(kSelf, mdb::PropertyString(prop::containingTable, "1.x"));
    EXPECT_EQ(shown(*oid), "null");
    work_t work;
    EXPECT_THROW(oid->load(chain, work), mdb::error_wrongtype);
}

TEST_F(SpecialKindsTest, ActionsOfStatesThatThereAre) {
    class EvenOnes final : public StateEnumeration {
      public:
        [[nodiscard]] bool exists(const PropertyChain&, uint32_t state) const override {
            return state % 2 == 0;
        }
    };
    static const EvenOnes states;
    static const PropertyRow rows[] = {
        {.number = prop::name, .kind = kind_t::string, .flags = K},
        {.number = prop::stateAction0,
         .kind = kind_t::state_action,
         .flags = N,
         .initial = int64_t{1},
         .states = &states},
    };
    const TableSchema<NodetypeSchema> schema(
        {.nodetype = nodetype::View, .tql_class = cls::View, .properties = rows});
    tql::property_map_t out;
    for (const auto& entry : schema.properties())
        if (entry.schema->kind == "state action") entry.schema->encode(chain, kSelf, out);
    ASSERT_EQ(out.size(), 16U);
    EXPECT_EQ(out.begin()->first, prop::stateAction0);
    EXPECT_EQ(std::prev(out.end())->first, prop::stateAction0 + 30);
    EXPECT_EQ(out.begin()->second->print(), "enum(65538, 1)");
    EXPECT_DEATH(make_property({.number = prop::name, .kind = kind_t::state_action}),
                 "Row of property name names no states");
}

TEST_F(SpecialKindsTest, AValueThatStandsForNullIsNullWhereverItIsRead) {
    const auto port = make_property(
        {.number = prop::port, .kind = kind_t::u32, .flags = N, .null_value = int64_t{9}});
    const auto required =
        make_property({.number = prop::port, .kind = kind_t::u32, .null_value = int64_t{9}});
    tree.put(kSelf, mdb::PropertyUint32(prop::port, 9));
    EXPECT_EQ(shown(*port), "null");
    work_t work;
    port->load(chain, work);
    EXPECT_TRUE(work.is_null());
    tree.objects[kSelf] = {cls::Node, kRoot, kSource, {}};
    tree.put(kSource, mdb::PropertyUint32(prop::port, 9));
    EXPECT_EQ(shown(*port), "inherited null");
    tql::property_uint_t request(prop::port, 1);
    request.flags = kStateInherited;
    EXPECT_EQ(take(*port, request, work), "");
    EXPECT_TRUE(work.is_null());
    EXPECT_EQ(take(*required, request, work), "10: Null given for property port");
}

TEST_F(SpecialKindsTest, DamagedValuesAreReadAsNullOrEmpty) {
    const auto port = make_property({.number = prop::port, .kind = kind_t::u32});
    EXPECT_EQ(shown(*port), "0");  // must have a value and hasn't
    tree.put(kSelf, mdb::PropertyString(prop::port, "text"));
    EXPECT_EQ(shown(*port), "null");
}

TEST_F(SpecialKindsTest, LargeObjectsAreWrittenOnceAndFreedWhenReplaced) {
    const auto image =
        make_property({.number = prop::largeImage, .kind = kind_t::large_png, .flags = N});
    const std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', 13, 10, 26, 10, 1};
    test::Records& records = tree.objects[kSelf].records;
    test::FakeSink sink(records);
    EXPECT_EQ(take(*image, tql::property_lob_t(prop::largeImage, {1, 2, 3})),
              "10: Property largeImage: Not a valid png image");
    work_t work;
    ASSERT_EQ(take(*image, tql::property_lob_t(prop::largeImage, png), work), "");
    image->store(kSelf, chain, work, {}, sink);
    ASSERT_EQ(sink.lobs.size(), 1U);
    tree.lobs = sink.lobs;
    EXPECT_EQ(static_cast<const tql::property_lob_t&>(*read(*image)).value, png);

    std::vector<uint8_t> other = png;
    other.push_back(2);
    const auto fixed = make_property({.number = prop::largeImage, .kind = kind_t::lob, .flags = C});
    work_t old, kept;
    fixed->load(chain, kept);
    EXPECT_EQ(take(*fixed, tql::property_lob_t(prop::largeImage, png), kept), "");
    EXPECT_EQ(take(*fixed, tql::property_lob_t(prop::largeImage, other), kept),
              "8: Cannot update const property largeImage: 0 vs. 0");
    image->load(chain, old);
    image->load(chain, kept);
    image->store(kSelf, chain, kept, old, sink);  // nothing given: the chain of blocks stays
    EXPECT_EQ(sink.lobs.size(), 1U);
    ASSERT_EQ(take(*image, tql::property_lob_t(prop::largeImage, png), kept), "");
    image->store(kSelf, chain, kept, old, sink);  // nor for the same bytes once more
    EXPECT_TRUE(sink.lobs.contains(101));
    ASSERT_EQ(take(*image, tql::property_lob_t(prop::largeImage, other), kept), "");
    image->store(kSelf, chain, kept, old, sink);
    EXPECT_EQ(sink.lobs.size(), 1U);
    EXPECT_TRUE(sink.lobs.contains(102));
}

}  // namespace
}  // namespace dbcache
