// Comparisons, print forms and typed reading of values.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>

#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_map.h"

namespace tql {
namespace {

using enum relop_t;

constexpr relop_t kOrdering[] = {eq, gt, lt, ge, le, ne, ieq, ine};

// The operators of kOrdering that hold for each outcome of a comparison, as a text of marks.
constexpr std::string_view kLess = "--+-++-+";
constexpr std::string_view kEqual = "+--++-+-";
constexpr std::string_view kGreater = "-+-+-+-+";
constexpr std::string_view kLessButForCase = "--+-+++-";
constexpr std::string_view kGreaterButForCase = "-+-+-++-";

template <class Kind>
value_t of(typename Kind::value_type value) {
    return std::make_unique<Kind>(prop::label, std::move(value));
}
template <class Kind>
value_t null() {
    return std::make_unique<Kind>(Kind::null(prop::label));
}
value_t enum_of(uint32_t enumeration, uint32_t value) {
    return std::make_unique<property_enum_t>(prop::status, enumeration, value, 0);
}
value_t enum_null(uint32_t enumeration) {
    return std::make_unique<property_enum_t>(property_enum_t::null(prop::status, enumeration, 0));
}
using strings = std::vector<std::string>;
using numbers = std::vector<uint32_t>;
using bytes = std::vector<uint8_t>;
using ids = std::set<id_t>;

std::string marks(const value_t& a, const value_t& b) {
    std::string result;
    for (const relop_t op : kOrdering) result += a->compare(op, *b) ? '+' : '-';
    return result;
}

struct OrderCase {
    const char* what;
    value_t a, b;
    std::string_view expected;
};

TEST(Compare, EveryKindOrdersItsPayloads) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const uint64_t all_ones = ~uint64_t{0};
    const OrderCase cases[] = {
        {"string", of<property_string_t>("a"), of<property_string_t>("b"), kLess},
        {"string, equal", of<property_string_t>("a"), of<property_string_t>("a"), kEqual},
        {"string, case", of<property_string_t>("aBc"), of<property_string_t>("abC"),
         kLessButForCase},
        {"string, case", of<property_string_t>("abC"), of<property_string_t>("aBc"),
         kGreaterButForCase},
        {"string, case and length", of<property_string_t>("AB"), of<property_string_t>("abc"),
         kLess},
        {"string, bytes are unsigned", of<property_string_t>("\xC3\xA5"),
         of<property_string_t>("z"), kGreater},
        {"string list", of<property_string_list_t>(strings{"b"}),
         of<property_string_list_t>(strings{"a", "z"}), kGreater},
        {"object", of<property_object_t>(id_t(1, 2)), of<property_object_t>(id_t(1, 2, 0)), kLess},
        {"version", of<property_version_t>({all_ones, 0}), of<property_version_t>({1, 0}), kLess},
        {"version, counters wrap", of<property_version_t>({7, 1}),
         of<property_version_t>({7, all_ones}), kGreater},
        {"action", of<property_action_t>(-1), of<property_action_t>(0), kLess},
        {"real", of<property_real_t>(-0.5), of<property_real_t>(1e9), kLess},
        {"real, NaN", of<property_real_t>(nan), of<property_real_t>(1), kEqual},
        {"bignum", of<property_bignum_t>(BigNum(256U)), of<property_bignum_t>(BigNum(255U)),
         kGreater},
        {"gid", of<property_gid_t>(0x80000000), of<property_gid_t>(1), kGreater},
        {"gid list, shorter first", of<property_gid_list_t>(numbers{9}),
         of<property_gid_list_t>(numbers{1, 1}), kLess},
        {"oid, element by element", of<property_oid_t>(numbers{1, 3}),
         of<property_oid_t>(numbers{1, 2}), kGreater},
        {"date", of<property_date_t>(-1), of<property_date_t>(1), kLess},
        {"index", of<property_index_t>(0xFFFFFFFF), of<property_index_t>(0), kGreater},
        {"int", of<property_int_t>(-1), of<property_int_t>(0), kLess},
        {"uint", of<property_uint_t>(0xFFFFFFFF), of<property_uint_t>(0), kGreater},
        {"boolean", of<property_boolean_t>(false), of<property_boolean_t>(true), kLess},
        {"blob, prefix first", of<property_blob_t>(bytes{1}), of<property_blob_t>(bytes{1, 0}),
         kLess},
        {"lob, not by length", of<property_lob_t>(bytes{2}), of<property_lob_t>(bytes{1, 1}),
         kGreater},
        {"enum", enum_of(0x10005, 12), enum_of(0x10005, 13), kLess},
        {"set", of<property_object_set_t>(ids{{1, 1}}), of<property_object_set_t>(ids{{1, 2}}),
         kGreater},
        {"set, the other way", of<property_object_set_t>(ids{{1, 2}}),
         of<property_object_set_t>(ids{{1, 1}}), kGreater},
        {"set, equal", of<property_object_set_t>(ids{{1, 2}}),
         of<property_object_set_t>(ids{{1, 2}}), kEqual},
        {"nulls", null<property_string_t>(), null<property_string_t>(), kEqual},
        {"null first", null<property_string_t>(), of<property_string_t>(""), kLess},
        {"null last", of<property_int_t>(-5), null<property_int_t>(), kGreater},
        {"null set", null<property_object_set_t>(), of<property_object_set_t>(ids{}), kLess},
        {"null enums", enum_null(0x10005), enum_null(0x10005), kEqual},
    };
    for (const OrderCase& c : cases) EXPECT_EQ(marks(c.a, c.b), c.expected) << c.what;
}

TEST(Compare, SetsAndMembership) {
    const auto set = [](ids value) { return of<property_object_set_t>(std::move(value)); };
    const value_t none = null<property_object_set_t>();
    struct {
        value_t a;
        relop_t op;
        value_t b;
        bool expected;
    } cases[] = {
        {set({}), subset, set({{1, 1}}), true},
        {set({{1, 1}}), subset, set({{1, 1}, {1, 2}}), true},
        {set({{1, 3}}), subset, set({{1, 1}, {1, 2}}), false},
        {none, subset, none, true},
        {set({}), subset, none, false},
        {set({{1, 1}}), superset, none, true},
        {none, superset, set({}), false},
        {set({{1, 1}, {1, 2}}), superset, set({{1, 2}}), true},
        {set({{1, 1}}), superset, set({{1, 2}}), false},
        {set({{1, 1}, {1, 3}}), intersects, set({{1, 2}, {1, 3}}), true},
        {set({{1, 1}, {1, 3}}), intersects, set({{1, 2}, {1, 4}}), false},
        {none, intersects, set({{1, 2}}), false},
        {of<property_object_t>(id_t(1, 2)), in, set({{1, 2}}), true},
        {of<property_object_t>(id_t(1, 3)), in, set({{1, 2}}), false},
        {of<property_object_t>(id_t(1, 2)), in, none, false},
        {null<property_object_t>(), in, set({{1, 2}}), false},
        {of<property_string_t>("Main Router"), isubstr, of<property_string_t>("ROUT"), true},
        {of<property_string_t>("Main Router"), isubstr, of<property_string_t>("switch"), false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.a->compare(c.op, *c.b), c.expected)
            << c.a->print() << relop_text(c.op) << (c.b->is_null ? "null" : c.b->print());
}

TEST(Compare, RefusesWhatCannotBeCompared) {
    const value_t label = of<property_string_t>("x");
    const value_t number = of<property_int_t>(1);
    struct {
        value_t a;
        relop_t op;
        value_t b;
        std::string text;
    } cases[] = {
        {label, eq, number, "Type mismatch, string != type of label"},
        {number, eq, label, "Type mismatch, int != type of label"},
        {of<property_uint_t>(1), eq, number, "Type mismatch, uint != type of label"},
        {of<property_version_t>({}), eq, label, "Type mismatch, object != type of label"},
        {of<property_oid_t>({}), eq, of<property_gid_list_t>({}),
         "Type mismatch, GIDList != type of label"},
        {of<property_string_list_t>({}), eq, label, "Type mismatch, string_list != type of label"},
        {of<property_object_set_t>({}), subset, label,
         "Type mismatch, object_set != type of label"},
        {of<property_object_t>({}), in, label, "Type mismatch, object_set != type of label"},
        {enum_of(0x10005, 1), eq, label, "Type mismatch, int != type of label"},
        {enum_null(0x10005), eq, enum_null(0x10002),
         "Type mismatch, enum (65541) != enum (65538) of status"},
        {label, isubstr, null<property_string_t>(), "Unknown relative operator"},
        {label, contains, label, "Unknown relative operator"},
        {number, in, number, "Unknown relative operator"},
        {number, static_cast<relop_t>(99), number, "Unknown relative operator"},
    };
    for (const auto& c : cases) {
        try {
            (void)c.a->compare(c.op, *c.b);
            ADD_FAILURE() << "no refusal: " << c.text;
        } catch (const errors::tql_incomparable& error) {
            EXPECT_EQ(error.text(), c.text);
            EXPECT_EQ(error.code(), 11U);
        }
    }
}

TEST(Print, EveryKindByLiteral) {
    struct {
        value_t value;
        std::string type_name, print;
    } cases[] = {
        {of<property_string_t>("a\"b"), "string", "\"a\"b\""},
        {of<property_string_list_t>({"a", "b"}), "string list", "\"a\", \"b\""},
        {of<property_object_set_t>({{1, 2}, {0, 1}}), "object set", "{\"0.1\", \"1.2\"}"},
        {of<property_object_t>(id_t(12, 345, 7)), "object", "\"12.345.7\""},
        {of<property_version_t>({5, 6}), "version", "\"5.1.6\""},
        {of<property_action_t>(3), "action", "(null)"},
        {of<property_real_t>(0.1), "real", "0.1"},
        {of<property_real_t>(-std::numeric_limits<double>::infinity()), "real", "-inf"},
        {of<property_bignum_t>(BigNum(1000U)), "bignum", "1000"},
        {of<property_gid_t>(0x010203ff), "uint32", "01:02:03:ff"},
        {of<property_gid_list_t>({1, 2}), "uint32 list", "00:00:00:01, 00:00:00:02"},
        {of<property_date_t>(-1), "timestamp", "-1"},
        {of<property_index_t>(7), "uint", "7"},
        {of<property_int_t>(-7), "int", "-7"},
        {of<property_uint_t>(4294967295), "uint", "4294967295"},
        {of<property_boolean_t>(true), "bool", "true"},
        {of<property_blob_t>({1}), "BLOB", "BLOB"},
        {of<property_lob_t>({1}), "LOB", "LOB"},
        {of<property_oid_t>({1}), "uint32 list", "00:00:00:01"},
        {enum_of(65541, 13), "enum 65541", "enum(65541, 13)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.value->print(), c.print);
        EXPECT_EQ(c.value->type_name(), c.type_name);
        EXPECT_EQ(c.value, value_t(c.value)) << "a copy is identical: " << c.print;
    }
}

TEST(Extract, RefusesNullAndOtherKinds) {
    const auto text_of = [](auto&& extract) -> std::string {
        try {
            extract();
        } catch (const errors::tql& error) {
            EXPECT_EQ(error.code(), errors::ERR_ILLEGAL_TYPE);
            return error.text();
        }
        return "nothing thrown";
    };
    const value_t label = of<property_string_t>("x");
    EXPECT_EQ(text_of([&] { (void)as_uint(*label); }), "Type mismatch for property_uint_t: label");
    EXPECT_EQ(text_of([&] { (void)as_uint(*of<property_index_t>(1)); }),
              "Type mismatch for property_uint_t: label");
    EXPECT_EQ(text_of([&] { (void)as_string(*null<property_string_t>()); }),
              "Null given for property_string_t: label");
    EXPECT_EQ(text_of([&] { (void)as_object_set(*null<property_int_t>()); }),
              "Null given for property_object_set_t: label");
    EXPECT_EQ(text_of([&] { (void)as_enum(*label, 0x10005); }),
              "Type mismatch for property_t: label [exp:65541,actual: non-enum]");
    EXPECT_EQ(text_of([&] { (void)as_enum(*enum_of(0x10002, 1), 0x10005); }),
              "Type mismatch for property_t: status [exp:65541,actual:65538]");
    EXPECT_EQ(as_enum(*enum_of(0xABC10005, 13), 0x10005), 13U) << "only the low 17 bits count";
    EXPECT_EQ(as_string(*label), "x");
}

}  // namespace
}  // namespace tql
