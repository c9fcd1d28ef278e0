#include "wapi/json_values.h"

#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tql/enumerations.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_kinds.h"
#include "tql/property_map.h"

namespace {

using nlohmann::json;

/// A form that names the kind works for every property, so that each kind can be tried.
json form(const char* type, json value) {
    return {{"type", type}, {"value", std::move(value)}};
}

struct Row {
    const char* name;
    tql::value_t value;
    std::string json_text;
};

std::vector<Row> all_kinds() {
    using namespace tql;
    const uint32_t p = 9999;
    const auto make = []<class Kind>(Kind kind) {
        return value_t(std::make_unique<Kind>(std::move(kind)));
    };
    std::vector<Row> rows;
    const auto add = [&](const char* name, value_t value, std::string payload) {
        rows.push_back({name, std::move(value),
                        R"({"type":")" + std::string(name) + R"(","value":)" + payload + "}"});
    };
    add("string", make(property_string_t(p, "a\"b")), R"("a\"b")");
    add("strings", make(property_string_list_t(p, {"a,b", ""})), R"(["a,b",""])");
    add("strings", make(property_string_list_t(p, {})), "[]");
    add("set", make(property_object_set_t(p, {{1, 2}, {1, 3, 4}})), R"(["1.2","1.3.4"])");
    add("object", make(property_object_t(p, {1, 4294960001})), R"("1.4294960001")");
    add("object", make(property_object_t(p, {})), R"("")");
    add("version", make(property_version_t(p, {12, 345})), R"("12.345")");
    add("action", make(property_action_t(p, -1)), "-1");
    add("real", make(property_real_t(p, 0.1)), "0.1");
    add("real", make(property_real_t(p, -INFINITY)), R"("-inf")");
    add("gid", make(property_gid_t(p, 0x01020aff)), R"("01:02:0a:ff")");
    add("gids", make(property_gid_list_t(p, {1, 2})), R"(["00:00:00:01","00:00:00:02"])");
    add("date", make(property_date_t(p, 1700000000)), R"("2023-11-14 22:13:20")");
    add("index", make(property_index_t(p, 4294967295)), "4294967295");
    add("int", make(property_int_t(p, INT32_MIN)), "-2147483648");
    add("uint", make(property_uint_t(p, 0)), "0");
    add("bool", make(property_boolean_t(p, true)), "true");
    add("blob", make(property_blob_t(p, {0, 1, 2, 255})), R"("AAEC/w==")");
    add("lob", make(property_lob_t(p, {})), R"("")");
    add("oid", make(property_oid_t(p, {1, 3, 6})), R"("1.3.6")");
    add("uint", make(property_uint_t::null(p)), "null");
    add("strings", make(property_string_list_t::null(p)), "null");
    return rows;
}

TEST(JsonValues, EveryKindGoesOutAndComesBack) {
    for (const Row& row : all_kinds()) {
        SCOPED_TRACE(row.json_text);
        EXPECT_EQ(wapi::value_to_json(cls::Any, *row.value).dump(), row.json_text);
        const tql::value_t back = wapi::value_from_json(cls::Any, 9999, json::parse(row.json_text));
        EXPECT_TRUE(back == row.value) << back->print();
    }
}

TEST(JsonValues, AnEnumerationIsToldByTextAndByName) {
    const uint32_t status = tql::enumeration::Status;
    const uint32_t known = tql::find_enumeration_value(status, "Alert").value();
    const tql::value_t value = std::make_unique<tql::property_enum_t>(9999, status, known, 0);
    EXPECT_EQ(wapi::value_to_json(cls::Any, *value).dump(),
              R"({"type":"enum","enumeration":"Status","value":"Alert"})");
    for (const char* text : {R"({"type":"enum","enumeration":"Status","value":"alert"})",
                             R"({"type":"enum","enumeration":65541,"value":"Alert"})"}) {
        SCOPED_TRACE(text);
        EXPECT_TRUE(wapi::value_from_json(cls::Any, 9999, json::parse(text)) == value);
    }
    // A number that has no text stays a number, with an enumeration that has no name.
    const tql::value_t bare = std::make_unique<tql::property_enum_t>(9999, 0x10008, 77, 0);
    EXPECT_EQ(wapi::value_to_json(cls::Any, *bare).dump(),
              R"({"type":"enum","enumeration":65544,"value":77})");
    EXPECT_TRUE(wapi::value_from_json(cls::Any, 9999,
                                      json::parse(wapi::value_to_json(cls::Any, *bare).dump())) ==
                bare);
}

TEST(JsonValues, TheUsualKindNeedsNoForm) {
    tql::property_map_t map;
    tql::add<tql::property_string_t>(map, prop::label, "Lab");
    tql::add<tql::property_uint_t>(map, prop::comment, 5);  // not its usual kind
    tql::add<tql::property_uint_t>(map, 9999, 6);
    EXPECT_EQ(json(wapi::values_to_json(cls::Any, map)),
              json::parse(R"({"label":"Lab","comment":{"type":"uint","value":5},
                              "9999":{"type":"uint","value":6}})"));
    const auto values = wapi::values_from_json(
        cls::Any, json::parse(R"({"label":"Lab","comment":{"type":"uint","value":5}})"));
    ASSERT_EQ(values.size(), 2U);
    EXPECT_TRUE(values[0] == map[prop::comment]);
    EXPECT_TRUE(values[1] == map[prop::label]);
    // The text form of the command line will do as well.
    EXPECT_EQ(tql::as_uint(*wapi::value_from_json(cls::Any, 9999, form("uint", "0x10"))), 16U);
    EXPECT_TRUE(wapi::value_from_json(cls::Any, prop::label, nullptr)->is_null);
}

TEST(JsonValues, AClassHasKindsOfItsOwn) {
    const std::tuple<uint32_t, uint32_t, tql::value_t, const char*, const char*> cases[] = {
        {cls::AlertPath, prop::graphAutoScale,
         std::make_unique<tql::property_enum_t>(prop::graphAutoScale,
                                                tql::enumeration::YesNoDefault, 2, 0),
         R"("Default")", R"({"type":"enum","enumeration":"YesNoDefault","value":"Default"})"},
        {cls::ReportSendTo, prop::destination,
         std::make_unique<tql::property_string_list_t>(prop::destination,
                                                       std::vector<std::string>{"a", "b"}),
         R"(["a","b"])", R"({"type":"strings","value":["a","b"]})"},
        {cls::MonthPlanner, prop::order, std::make_unique<tql::property_int_t>(prop::order, -1),
         "-1", R"({"type":"int","value":-1})"},
        {cls::PropertyLayout, prop::unit, std::make_unique<tql::property_string_t>(prop::unit, "s"),
         R"("s")", R"({"type":"string","value":"s"})"},
    };
    for (const auto& [class_number, property, value, plain, form] : cases) {
        EXPECT_EQ(wapi::value_to_json(class_number, *value).dump(), plain);
        EXPECT_EQ(wapi::value_to_json(cls::Node, *value).dump(), form);
        EXPECT_TRUE(wapi::value_from_json(class_number, property, json::parse(plain)) == value);
        EXPECT_TRUE(wapi::value_from_json(cls::Node, property, json::parse(form)) == value);
        const std::string name = tql::property_name(property);
        EXPECT_TRUE(wapi::depend_on_class({{name, json::parse(plain)}})) << name;
        EXPECT_FALSE(wapi::depend_on_class({{name, json::parse(form)}, {"label", "a"}})) << name;
    }
}

TEST(JsonValues, AUnitIsAText) {
    const tql::value_t rate =
        wapi::value_from_json(cls::Check, prop::unit, json::parse(R"("kB/s")"));
    EXPECT_EQ(rate->type(), tql::property_type_t::blob);
    EXPECT_EQ(wapi::value_to_json(cls::Check, *rate).dump(), R"("kB/s")");
    EXPECT_EQ(wapi::value_to_json(cls::PropertyLayout, *rate).dump(),
              R"({"type":"unit","value":"kB/s"})");
    // Bytes that no text stands for, as those of a later form, come and go as they are.
    const std::string later = R"({"type":"blob","value":"UQIH"})";
    const tql::value_t bytes = wapi::value_from_json(cls::Check, prop::unit, json::parse(later));
    EXPECT_EQ(wapi::value_to_json(cls::Check, *bytes).dump(), later);
}

TEST(JsonValues, InheritedValuesAreToldAndAskedFor) {
    tql::property_map_t map;
    tql::add<tql::property_string_t>(map, prop::label, "Lab", tql::kFlagInherited);
    tql::add<tql::property_uint_t>(map, prop::checkinFrequency, 30, tql::kFlagNullable);
    tql::add_null<tql::property_uint_t>(map, 9999, tql::kFlagInherited | tql::kFlagNullable);
    EXPECT_EQ(wapi::inherited_to_json(map).dump(), R"(["label","9999"])");

    const auto values = wapi::values_from_json(
        cls::Any, json::parse(R"({"label": {"inherit": true}, "checkinFrequency": {"inherit": true},
                        "inherits": "1.7"})"));
    for (const tql::value_t& value : values) {
        SCOPED_TRACE(tql::property_name(value->property));
        const bool asks = value->property != prop::inherits;
        EXPECT_EQ(value->flags, asks ? tql::kFlagInherited : 0U);
        EXPECT_EQ(value->is_null, asks);
    }
    // A property without a usual kind can be inherited as well.
    EXPECT_EQ(wapi::value_from_json(cls::Any, 9999, {{"inherit", true}})->flags,
              tql::kFlagInherited);
}

TEST(JsonValues, OfATemplateACreateTakesWhatTheServerDoesNotMake) {
    tql::property_map_t map;
    tql::add_null<tql::property_object_t>(map, prop::parentId, tql::kFlagNullable);
    tql::add<tql::property_string_t>(map, prop::name, "", tql::kFlagPrimaryKey);
    tql::add<tql::property_string_t>(map, prop::treeLabel, "Add Node", tql::kFlagComputed);
    tql::add_null<tql::property_action_t>(map, prop::resetScore);
    tql::add<tql::property_uint_t>(map, prop::snmpPort, 161);
    EXPECT_EQ(wapi::settable_to_json(map).dump(), R"(["name","snmpPort"])");
}

TEST(JsonValues, WrongValuesNameTheProperty) {
    struct Wrong {
        const char* text;
        errors::tql_code_t code;
        const char* message;
    };
    const Wrong rows[] = {
        {R"({"label": 5})", errors::ERR_ILLEGAL_TYPE,
         "label: expected a text for a value of type string, found the number 5"},
        {R"({"label": true})", errors::ERR_ILLEGAL_TYPE,
         "label: expected a text for a value of type string, found true"},
        {R"({"label": ["a"]})", errors::ERR_ILLEGAL_TYPE,
         "label: expected a text for a value of type string, found a list"},
        {R"({"label": {"type": "strings", "value": ["a", 1]}})", errors::ERR_ILLEGAL_TYPE,
         "label: expected a list of texts for a value of type strings, found the number 1"},
        {R"({"label": {"type": "uint", "value": 1.5}})", errors::ERR_ILLEGAL_TYPE,
         "label: expected a whole number for a value of type uint, found the number 1.5"},
        {R"({"label": {"type": "bool", "value": 1}})", errors::ERR_ILLEGAL_TYPE,
         "label: expected true or false for a value of type bool, found the number 1"},
        {R"({"label": {"type": "uint", "value": -1}})", errors::ERR_ILLEGAL_VALUE,
         "label: \"-1\" is not a value of type uint: expected a number from 0 to 4294967295"},
        {R"({"label": {"type": "int", "value": 2147483648}})", errors::ERR_ILLEGAL_VALUE,
         "label: \"2147483648\" is not a value of type int: expected a number from -2147483648 to "
         "2147483647"},
        {R"({"label": {"type": "blob", "value": "A"}})", errors::ERR_ILLEGAL_VALUE,
         "label: \"A\" is not a value of type blob: expected base64"},
        {R"({"label": {"value": 1}})", errors::ERR_ILLEGAL_TYPE,
         "label: an object needs the fields \"type\", a text, and \"value\""},
        {R"({"label": {"type": "colour", "value": 1}})", errors::ERR_ILLEGAL_TYPE,
         "label: \"colour\" is no type of values"},
        {R"({"label": {"type": "uint", "value": 1, "flags": 2}})", errors::ERR_ILLEGAL_TYPE,
         "label: unknown field \"flags\""},
        {R"({"label": {"type": "enum", "value": "Alert"}})", errors::ERR_ILLEGAL_TYPE,
         "label: a value of type \"enum\" also needs \"enumeration\""},
        {R"({"label": {"type": "enum", "enumeration": "Mood", "value": 1}})",
         errors::ERR_ILLEGAL_TYPE, "label: \"Mood\" is no enumeration"},
        {R"({"label": {"inherit": false}})", errors::ERR_ILLEGAL_TYPE,
         "label: \"inherit\" must be true and stand alone"},
        {R"({"label": {"inherit": true, "value": "a"}})", errors::ERR_ILLEGAL_TYPE,
         "label: \"inherit\" must be true and stand alone"},
    };
    for (const Wrong& row : rows) {
        SCOPED_TRACE(row.text);
        try {
            (void)wapi::values_from_json(cls::Any, json::parse(row.text));
            ADD_FAILURE() << "nothing thrown";
        } catch (const errors::tql& refused) {
            EXPECT_EQ(refused.code(), row.code);
            EXPECT_EQ(refused.text(), row.message);
        }
    }
    try {
        (void)wapi::values_from_json(cls::Any, json{{"colour", 1}});
        ADD_FAILURE() << "nothing thrown";
    } catch (const errors::tql& refused) {
        EXPECT_EQ(refused.code(), errors::ERR_NO_SUCH_PROPERTY);
    }
}

}  // namespace
