#include "wapi/api.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tql/query_text.h"

namespace {

using nlohmann::json;

TEST(ApiRequests, BodiesBecomeRecords) {
    const auto select = wapi::select_request(json::parse(R"({"pattern": "Domain*[name] > Node"})"));
    EXPECT_EQ(select.root_ids, std::list<tql::id_t>({{0, 1}}));
    EXPECT_EQ(tql::pattern_text(select.pattern), "Domain*[name] > Node");
    EXPECT_EQ(wapi::select_request(json::parse(R"({"pattern": ".", "roots": ["1.2", "1.3.4"]})"))
                  .root_ids,
              std::list<tql::id_t>({{1, 2}, {1, 3, 4}}));

    const auto create = wapi::create_request(json::parse(
        R"({"parent": "0.1", "class": "Domain", "id": "5.6", "user": "7.8",
            "ignore_unknown": true, "properties": {"name": "lab"}})"));
    EXPECT_EQ(create.parent_id, tql::id_t(0, 1));
    EXPECT_EQ(create.class_, cls::Domain);
    EXPECT_EQ(create.new_id, tql::id_t(5, 6));
    EXPECT_EQ(create.user_id, tql::id_t(7, 8));
    EXPECT_EQ(create.flags, 8U);
    ASSERT_EQ(create.properties.size(), 1U);
    EXPECT_EQ(tql::as_string(*create.properties[0]), "lab");
    const auto bare = wapi::create_request(json::parse(R"({"parent": "0.1", "class": "Node"})"));
    EXPECT_TRUE(bare.new_id.empty());
    EXPECT_EQ(bare.flags, 0U);

    const auto update = wapi::update_request(
        json::parse(R"({"id": "1.2", "version": "3.4", "properties": {"label": null}})"));
    EXPECT_TRUE(update.has_version);
    EXPECT_EQ(update.record.version, (tql::version_t{3, 4}));
    EXPECT_TRUE(update.record.properties.at(0)->is_null);
    EXPECT_FALSE(wapi::delete_request(json::parse(R"({"id": "1.2"})")).has_version);
    // Some values can't be read before it is known whose they are.
    const json order = json::parse(R"({"id": "1.2", "properties": {"order": 5}})");
    EXPECT_FALSE(wapi::update_request(order).has_properties);
    EXPECT_EQ(wapi::update_request(order, cls::MonthPlanner).record.properties.at(0)->type(),
              tql::property_type_t::int_);
}

TEST(ApiRequests, WrongBodiesAreToldWhatIsWrong) {
    struct Wrong {
        const char* route;
        const char* body;
        const char* text;
    };
    const Wrong rows[] = {
        {"select", "[]", "The body must be a JSON object"},
        {"select", "{}", "Field \"pattern\" is missing"},
        {"select", R"({"pattern": 5})", "Field \"pattern\" must be a text"},
        {"select", R"({"pattern": ".", "root": "0.1"})", "Unknown field \"root\""},
        {"select", R"({"pattern": ".", "roots": "0.1"})", "Field \"roots\" must be a list of ids"},
        {"select", R"({"pattern": ".", "roots": ["x"]})",
         "Field \"roots\": \"x\" is no id, expected one like 1.4294960001"},
        {"update", R"({"id": "1"})",
         "Field \"id\": \"1\" is no id, expected one like 1.4294960001"},
        {"update", R"({"id": "1.2", "version": "7"})",
         "Field \"version\": \"7\" is no version, expected two numbers joined by a point"},
        {"update", R"({"id": "1.2", "properties": []})",
         "Field \"properties\" must be an object of values by name"},
        {"create", R"({"parent": "0.1", "class": "Node", "ignore_unknown": 1})",
         "Field \"ignore_unknown\" must be true or false"},
        {"delete", R"({"id": "1.2", "properties": {}})", "Unknown field \"properties\""},
    };
    for (const Wrong& row : rows) {
        SCOPED_TRACE(row.body);
        try {
            const json body = wapi::parse_body(row.body);
            const std::string_view route = row.route;
            if (route == "select") (void)wapi::select_request(body);
            if (route == "create") (void)wapi::create_request(body);
            if (route == "update") (void)wapi::update_request(body);
            if (route == "delete") (void)wapi::delete_request(body);
            ADD_FAILURE() << "nothing thrown";
        } catch (const wapi::Refused& refused) {
            EXPECT_EQ(refused.text(), row.text);
            EXPECT_EQ(refused.status(), 400U);
        }
    }
}

TEST(ApiRequests, NonsenseIsRefusedWhateverItsSize) {
    for (const std::string& body :
         {std::string(), std::string("{"), std::string("{\"a\": \xff}"), std::string("nul"),
          std::string(R"({"a": 1e999})"), std::string(1'000'000, '['),
          R"({"properties": )" + std::string(100, '[') + std::string(100, ']') + "}"})
        EXPECT_THROW((void)wapi::parse_body(body), wapi::Refused) << body.substr(0, 20);
    // A deep pattern is refused with its place by the reader of patterns.
    std::string deep = "Domain";
    for (int i = 0; i < 10'000; ++i) deep += " > Domain";
    const json body{{"pattern", deep}};
    try {
        (void)wapi::select_request(body);
        ADD_FAILURE() << "nothing thrown";
    } catch (const tql::query_text_error& wrong) {
        const json error = json::parse(wapi::refusal(wrong).body)["error"];
        EXPECT_EQ(error["name"], "BAD_PATTERN");
        EXPECT_TRUE(error["code"].is_null());
        EXPECT_EQ(error["details"][0]["line"], 1);
        EXPECT_GT(error["details"][0]["column"].get<int>(), 5000);
    }
}

TEST(ApiAnswers, ErrorCodesHaveTheirStatus) {
    const std::pair<uint32_t, unsigned> rows[] = {
        {errors::ERR_NO_SUCH_ID, 404},
        {errors::ERR_NO_MATCH, 400},
        {errors::ERR_VERSION, 409},
        {errors::ERR_EXISTS, 409},
        {errors::ERR_ILLEGAL_CHILD, 400},
        {errors::ERR_MISSING_PROPERTY, 400},
        {errors::ERR_ILLEGAL_VALUE, 400},
        {errors::ERR_BACKEND, 500},
        {errors::ERR_ACCESS_DENIED, 403},
        {13, 500},
        {99, 500},
    };
    for (const auto& [code, status] : rows) EXPECT_EQ(wapi::http_status(code), status) << code;

    const wapi::Response stale = wapi::refusal(3, {{3, "Stale"}, {7, "More"}});
    EXPECT_EQ(stale.status, 409U);
    EXPECT_EQ(stale.body, R"({"error":{"code":3,"name":"ERR_VERSION","text":"Stale",)"
                          R"("details":[{"type":7,"text":"More"}]}})");
    const json silent = json::parse(wapi::refusal(5, {}).body)["error"];
    EXPECT_EQ(silent["text"], std::string(errors::tql_code_text(5)));
}

TEST(ApiAnswers, AResultIsATree) {
    tql::result_t node;
    node.class_ = cls::Domain;
    node.id = {1, 17};
    node.version = {5, 6};
    node.children.resize(1);
    node.children[0].class_ = cls::Node;
    node.children[0].flags = 2;
    node.children[0].tags = {7};
    node.children[0].id = {1, 18};
    // What isn't UTF-8 must not spoil the whole answer.
    tql::add<tql::property_string_t>(node.children[0].properties, prop::name, "gw\xff");
    tql::add<tql::property_string_t>(node.properties, prop::label, "L", tql::kFlagInherited);
    dbms::Return_Tql_Select_Data returned;
    returned.res.push_back(node);
    const wapi::Response answer = wapi::answer(returned);
    EXPECT_EQ(answer.status, 200U);
    EXPECT_EQ(
        answer.body,
        R"({"results":[{"id":"1.17","class":"Domain","version":"5.6","properties":{"label":"L"},)"
        R"("inherited":["label"],)"
        R"("children":[{"id":"1.18","class":"Node","version":"0.0","flags":2,"tags":[7],)"
        "\"properties\":{\"name\":\"gw\xEF\xBF\xBD\"},\"settable\":[\"name\"]}]}]}");
}

TEST(ApiAnswers, WritesTellIdAndVersion) {
    dbms::Return_Tql_Create_Data created;
    created.new_id = {1, 2};
    created.new_version = {5, 7};
    EXPECT_EQ(wapi::answer(created).body, R"({"id":"1.2","version":"5.7"})");
    created.status = 16;
    EXPECT_EQ(wapi::answer(created).body,
              R"({"id":"1.2","version":"5.7","ignored_properties":true})");
    created.status = 4;
    created.details = {{3, "EXISTS{1.9} Duplicate"}};
    EXPECT_EQ(wapi::answer(created).status, 409U);
    EXPECT_EQ(wapi::answer(dbms::Return_Tql_Delete_Data{}, {1, 2}).body, R"({"id":"1.2"})");
    dbms::Return_Tql_Class_Names_Data names;
    names.names = {"A", "", "C"};
    EXPECT_EQ(wapi::answer(names).body,
              R"({"classes":[{"number":0,"name":"A"},{"number":2,"name":"C"}]})");
}

}  // namespace
