// Single values as text: what is read, what is printed, what is refused.
#include "tql/value_text.h"

#include <gtest/gtest.h>

#include "tql/enumerations.h"
#include "tql/names.h"
#include "tql/property_kinds.h"

namespace tql {
namespace {

using enum property_type_t;

TEST(ValueText, ReadsAndPrintsEveryKind) {
    struct {
        value_kind_t kind;
        std::string given, printed, payload;  // payload: the print form of the value read
    } cases[] = {
        {{string, 0}, " a,b ", " a,b ", "\" a,b \""},
        {{string_list, 0}, "a,b\\,c,\\\\", "a,b\\,c,\\\\", "\"a\", \"b,c\", \"\\\""},
        {{string_list, 0}, "", "", ""},
        {{string_list, 0}, "\\e", "\\e", "\"\""},
        {{string_list, 0}, ",", ",", "\"\", \"\""},
        {{object_set, 0}, "1.3, 1.2,1.3", "1.2,1.3", "{\"1.2\", \"1.3\"}"},
        {{object, 0}, " 1.4294960001", "1.4294960001", "\"1.4294960001\""},
        {{version, 0}, "12.345", "12.345", "\"12.1.345\""},
        {{version, 0}, "12.1.345", "12.345", "\"12.1.345\""},
        {{action, 0}, "1", "1", "(null)"},
        {{real, 0}, "1e3", "1000", "1000"},
        {{real, 0}, "-inf", "-inf", "-inf"},
        {{bignum, 0},
         "340282366920938463463374607431768211456",
         "340282366920938463463374607431768211456",
         "340282366920938463463374607431768211456"},
        {{bignum, 0}, "0x100", "256", "256"},
        {{gid, 0}, "01:02:0A:ff", "01:02:0a:ff", "01:02:0a:ff"},
        {{gid, 0}, "258", "00:00:01:02", "00:00:01:02"},
        {{gid_list, 0}, "1,00:00:00:02", "00:00:00:01,00:00:00:02", "00:00:00:01, 00:00:00:02"},
        {{date, 0}, "1970-01-02 00:00:01", "1970-01-02 00:00:01", "86401"},
        {{date, 0}, "2024-02-29T12:30Z", "2024-02-29 12:30:00", "1709209800"},
        {{date, 0}, "1969-12-31 23:59:59", "1969-12-31 23:59:59", "-1"},
        {{date, 0}, "9223372036854775807", "9223372036854775807", "9223372036854775807"},
        {{property_type_t::index, 0}, "7", "7", "7"},
        {{int_, 0}, "-2147483648", "-2147483648", "-2147483648"},
        {{uint, 0}, "4294967295", "4294967295", "4294967295"},
        {{boolean, 0}, "true", "true", "true"},
        {{boolean, 0}, "0", "false", "false"},
        {{blob, 0}, "AAEC/w==", "AAEC/w==", "BLOB"},
        {{lob, 0}, "", "", "LOB"},
        {{oid, 0}, "1.3.6.1", "1.3.6.1", "00:00:00:01, 00:00:00:03, 00:00:00:06, 00:00:00:01"},
        {{enum_, enumeration::Status}, "alert", "Alert", "enum(65541, 13)"},
        {{enum_, enumeration::Status}, "99", "99", "enum(65541, 99)"},
        {{enum_, enumeration::HttpVerion}, "1.1", "1.1", "enum(65568, 1)"},
        {{enum_, enumeration::EsxiType}, "2", "2", "enum(65573, 2)"},
    };
    for (const auto& c : cases) {
        const value_t read = parse_value(prop::label, c.kind, c.given);
        EXPECT_EQ(read->property, prop::label);
        EXPECT_EQ(read->print(), c.payload) << c.given;
        EXPECT_EQ(value_text(*read), c.printed) << c.given;
        EXPECT_EQ(parse_value(prop::label, c.kind, c.printed), read) << c.printed;
    }
}

TEST(ValueText, RefusesWhatIsNoValue) {
    const std::pair<value_kind_t, const char*> cases[] = {
        {{object, 0}, "1.2.3.4"},
        {{object_set, 0}, "1.2;1.3"},
        {{version, 0}, "7"},
        {{int_, 0}, "2147483648"},
        {{uint, 0}, "-1"},
        {{uint, 0}, ""},
        {{uint, 0}, "0x"},
        {{uint, 0}, "0x-1"},
        {{uint, 0}, "5 6"},
        {{real, 0}, "1,5"},
        {{real, 0}, "1e999"},
        {{bignum, 0}, "-1"},
        {{bignum, 0}, ""},
        {{gid, 0}, "1:2:3:4"},
        {{gid, 0}, "01:02:03:0g"},
        {{date, 0}, "2023-02-29"},
        {{date, 0}, "2024-01-01 24:00"},
        {{date, 0}, "2024-01-01 12:0"},
        {{date, 0}, "2024-01-01x"},
        {{boolean, 0}, "yes"},
        {{blob, 0}, "AAE"},
        {{blob, 0}, "A=EC"},
        {{blob, 0}, "AAF="},
        {{blob, 0}, "===="},
        {{oid, 0}, "1..3"},
        {{oid, 0}, "1.3."},
        {{enum_, enumeration::Status}, "Bad"},
        {{enum_, 0}, "Alert"},
    };
    for (const auto& [kind, text] : cases)
        EXPECT_THROW((void)parse_value(prop::label, kind, text), value_text_error)
            << kind_word(kind) << " " << text;
    try {
        (void)parse_value(prop::snmpPort, {uint, 0}, "many");
        ADD_FAILURE();
    } catch (const value_text_error& error) {
        EXPECT_EQ(error.text(),
                  "\"many\" is not a value of type uint: expected a number from 0 to 4294967295");
    }
}

TEST(ValueText, UnitsAreTexts) {
    using Bytes = std::vector<uint8_t>;
    const value_kind_t unit = property_kind(cls::Check, prop::unit);
    struct {
        Bytes bytes;
        const char* text;
        Bytes back;
    } cases[] = {
        {{0x51, 1, 0x11, 1, 0x11, 9, 1, 9, 0x21, 1, 0x21, 2},
         "kB/s",
         {0x51, 1, 0x11, 1, 0x11, 9, 1, 9, 0x21, 1, 0x21, 2}},
        {{}, "", {0x51, 1}},
        {{0x11, 13}, "Hz", {0x51, 1, 0x11, 13}},  // of the oldest form, without mark
        {{0x51, 1, 0x11, 1, 1, 7, 0x21, 2}, "/s", {0x51, 1, 0x11, 1, 1, 7, 0x21, 2}},
        {{0x51, 1, 0x34, 'j', 'o', 'b', 's'}, "jobs", {0x51, 1, 0x34, 'j', 'o', 'b', 's'}},
    };
    for (const auto& c : cases) {
        const property_blob_t value(prop::unit, c.bytes);
        EXPECT_EQ(kind_of(value), unit) << c.text;
        EXPECT_EQ(value_text(value), c.text);
        EXPECT_EQ(parse_value(prop::unit, unit, c.text),
                  value_t(std::make_unique<property_blob_t>(prop::unit, c.back)));
    }
    // No text stands for a later form, for what is no unit, and for a plain blob.
    for (const auto& [property, bytes] : {std::pair{prop::unit, Bytes{0x51, 2, 7}},
                                          {prop::unit, {0x21, 2}},
                                          {prop::icon, {0x11, 13}}}) {
        const property_blob_t value(property, bytes);
        EXPECT_FALSE(kind_of(value).is_unit);
        EXPECT_EQ(value_text(value), to_base64(bytes));
    }
}

TEST(ValueText, ListsByElement) {
    const value_t list = parse_value_list(prop::values, {string_list, 0}, {"a,b", "", "c"});
    EXPECT_EQ(value_text_list(*list), (std::vector<std::string>{"a,b", "", "c"}));
    const value_t oids = parse_value_list(prop::snmpId, {oid, 0}, {"1", "3"});
    EXPECT_EQ(value_text(*oids), "1.3");
    EXPECT_THROW((void)parse_value_list(prop::label, {string, 0}, {"a"}), value_text_error);
    EXPECT_EQ(value_text(*make_null(prop::status, {enum_, enumeration::Status})), "null");
}

}  // namespace
}  // namespace tql
