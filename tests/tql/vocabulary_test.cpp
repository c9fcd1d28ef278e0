// Ids, versions, error codes, names and enumerations.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>

#include "tql/enumerations.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/result.h"
#include "tql/version.h"

namespace tql {
namespace {

using testing::ElementsAre;
using testing::ThrowsMessage;

TEST(Id, OrderTextAndNodeId) {
    EXPECT_LT(id_t(1, 2), id_t(1, 2, 0));
    EXPECT_NE(id_t(1, 2), id_t(1, 2, 0));
    EXPECT_LT(id_t(1, 4294967295), id_t(2, 0));
    EXPECT_EQ(id_t().to_string(), "");
    EXPECT_EQ(id_t(12, 345, 7).to_string(), "12.345.7");
    EXPECT_EQ(id_t(1, 2).to_node_id(), (NodeId{1, 2}));
    EXPECT_TRUE(id_t().to_node_id().is_null());
    EXPECT_THAT([] { (void)id_t(1, 2, 3).to_node_id(); },
                ThrowsMessage<errors::db_anomaly>("toNodeId invoked on an id_t of size != 2"));
    EXPECT_EQ(id_t(1, 2, 3).to_node_id_lenient(), (NodeId{1, 2}));
    EXPECT_TRUE(id_t::from_node_id(NodeId()).empty());
    EXPECT_EQ(id_t::from_node_id(NodeId{0, 1}), id_t(0, 1));
}

TEST(Id, RefusesToGrowBeyondThree) {
    id_t id(1, 2, 3);
    const id_t& fixed = id;
    EXPECT_THAT([&] { id.push_back(4); },
                ThrowsMessage<error::ERange>("small vector push overflow 3"));
    EXPECT_THAT([&] { id.resize(4); },
                ThrowsMessage<error::ERange>("small vector resize overflow 4 > 3"));
    id.resize(2);
    EXPECT_EQ(id, id_t(1, 2)) << "what was cut off doesn't count";
    EXPECT_THAT([&] { id[2] = 1; },
                ThrowsMessage<error::ERange>("small vector reference overflow 2 >= 2"));
    EXPECT_THAT([&] { (void)fixed[2]; },
                ThrowsMessage<error::ERange>("small vector const reference overflow 2 >= 2"));
}

TEST(Id, ReadsOnlyItsPrintForm) {
    EXPECT_EQ(id_t::parse("1.4294960001"), id_t(1, 4294960001));
    EXPECT_EQ(id_t::parse(""), id_t());
    for (const char* wrong :
         {".", "1.", ".1", "1..2", "1.2.3.4", "-1.2", "+1.2", "1.4294967296", " 1.2", "1.2 "})
        EXPECT_EQ(id_t::parse(wrong), std::nullopt) << wrong;
}

TEST(Version, ReadsBothForms) {
    EXPECT_EQ(version_t::parse("5.6"), (version_t{5, 6}));
    EXPECT_EQ(version_t::parse("5.1.6"), (version_t{5, 6}));
    for (const char* wrong : {"", "5", "5.", "5.2.6", "5.1.6.7", "5.1.6.", "a.b"})
        EXPECT_EQ(version_t::parse(wrong), std::nullopt) << wrong;
}

TEST(ErrorCodes, TextsAndNames) {
    const std::map<uint32_t, std::string_view> texts{
        {0, "No error"},
        {1, "Specified ID not found in database"},
        {2, "Pattern matched nothing"},
        {3, "Someone else has updated the object"},
        {4, "Attempted insertion of duplicate value in unique property"},
        {5, "Specified class not allowed as child of given object"},
        {6, "Some required properties is missing"},
        {7, "Requested update of noexistant property"},
        {8, "Requested update of const property"},
        {9, "Property updated with illegal type"},
        {10, "Property updated with illegal value"},
        {11, "Incomparable property"},
        {12, "The pattern is not implemented"},
        {13, "Unknown error"},
        {14, "Backend error"},
        {15, "Access denied"},
        {16, "Unknown error"},
    };
    for (const auto& [code, text] : texts) EXPECT_EQ(errors::tql_code_text(code), text) << code;
    EXPECT_EQ(errors::tql_code_name(3), "ERR_VERSION");
    EXPECT_EQ(errors::tql_code_name(13), "");
    EXPECT_EQ(errors::tql_exists(id_t(1, 2), "x").code(), 4U);
}

TEST(ErrorCodesDeathTest, SuccessIsNoFailure) {
    EXPECT_DEATH(errors::tql(errors::ERR_SUCCESS, "x"),
                 "Assertion failed: errors::tql constructed with code ERR_SUCCESS");
}

TEST(Names, ClassesAndProperties) {
    ASSERT_EQ(class_names().size(), 97U);
    EXPECT_EQ(class_names()[13], ".");
    EXPECT_EQ(class_names()[78], "");
    EXPECT_EQ(class_names()[96], "MonthPlanner");
    EXPECT_EQ(find_class("Domain"), 3U);
    EXPECT_EQ(find_class(""), std::nullopt) << "the reserved number has no name to be found by";
    EXPECT_EQ(class_name(78), "<unknown class: 78>");
    EXPECT_EQ(class_name(97), "<unknown class: 97>");
    EXPECT_THROW((void)get_class("domain"), errors::tql);

    EXPECT_EQ(find_property("parentId"), 2U);
    EXPECT_EQ(find_property("stateAction31"), 2731U);
    EXPECT_EQ(property_name(16383), "<unknown property: 16383>");
    EXPECT_THAT([] { (void)get_property("nmae"); },
                ThrowsMessage<errors::tql>("Unknown property \"nmae\""));
    for (const property_row_t& row : property_rows())
        EXPECT_EQ(find_property(row.name), row.number) << "each name stands once: " << row.name;
    EXPECT_EQ(prop::stateAction0 + prop::kStateActionCount - 1, prop::stateAction31);
}

TEST(Enumerations, TextsBothWays) {
    EXPECT_EQ(enumerations().size(), 19U);
    EXPECT_EQ(enumeration_text(enumeration::Status, 6), "(Warning)down");
    EXPECT_EQ(enumeration_text(enumeration::Status, 14), "14");
    EXPECT_EQ(enumeration_text(enumeration::AlertMethod, 8), "(Unknown method)");
    EXPECT_EQ(enumeration_text(enumeration::EsxiType, 2), "2");
    EXPECT_EQ(find_enumeration_value(enumeration::ReportPeriod, "last QUARTER"), 6U);
    EXPECT_EQ(find_enumeration_value(enumeration::Status, "Bad"), std::nullopt);
    for (const enumeration_t& row : enumerations())
        for (const enumeration_value_t& value : row.values) {
            EXPECT_EQ(find_enumeration_value(row.id, value.text), value.value) << row.name;
            EXPECT_EQ(find_enumeration_text(row.id, value.value), value.text) << row.name;
        }
}

TEST(Result, DeepTreesAreCopiedComparedAndDestroyed) {
    result_t root;
    result_t* at = &root;
    for (uint32_t i = 0; i < 200000; ++i) {
        at->class_ = i;
        at->children.emplace_back();
        at = &at->children.back();
    }
    result_t copy = root;
    EXPECT_TRUE(copy == root);
    at->flags = 1;
    EXPECT_FALSE(copy == root);
    root = result_t(std::move(root.children[0]));
    EXPECT_EQ(root.class_, 1U) << "a node may take the place of the tree that held it";
}

}  // namespace
}  // namespace tql
